#pragma once
#include <algorithm>
#include <string>

#include "World.h"
#include "agent/settings/Settings.h"

namespace agent {

/// Makes valid settings of valid ones, with names that are difficult as text.
class RandomSettings {
 public:
  Random pick;
  /// Changes one thing, or many.
  void mutate(Settings& s) {
    s.vrfs.try_emplace("default", 0);
    for (unsigned n = pick(10) == 0 ? 20 : 1 + pick(2); n > 0; --n) one(s);
  }

 private:
  std::string name() {
    static constexpr const char* names[] = {"a", "B-1\"\\", "a é'", "a#.]"};
    return names[pick(4)];
  }
  std::chrono::milliseconds time() {
    return std::chrono::milliseconds(1000 + pick(2) * pick(60000000));
  }
  void one(Settings& s) {
    const unsigned what = pick(22);
    if (what == 0) s.trackers.erase(name());
    if (what == 1) s.vrfs = {{"default", pick(100)}, {"r\"é", 100 + pick(1000)}};
    if (what == 1) s.statistics = "/\"é";
    if (what == 1) s.resolveInterval = time();
    if (what < 2) return;
    const std::string tracker = name();
    TrackerSettings& t = s.trackers[tracker];
    // Each name has a record of its own: with another one its templates would have other ids.
    if (tracker == "a") t.record = "minimal";
    if (tracker[0] == 'B')
      s.records[t.record = "r\"é"] = {{"vlanId", "packetDeltaCount"}, {"vlanId"}};
    t.definition = (s.records.contains(t.record) ? s.records : builtInRecords()).at(t.record);
    if ((t.biflow = tracker == "a")) t.definition = biflowRecord(t.definition);
    if (t.id == 0 || what == 2) {
      t.id = ++ids_;
      t.localPort = static_cast<uint16_t>(t.id + pick(2) * 30000);
    }
    if (what == 3) std::swap(t.id, s.trackers.begin()->second.id);
    if (what == 4) t.type = FlowTracking::FlowTrackingType(pick(2));
    if (what == 5) t.activeInterval = time();
    if (what == 6) t.inactiveTimeout = time();
    if (what == 7) t.sampleRate = 1 + pick(5000);
    if (what == 7) t.samplingOption = pick(2) == 0;
    if (what == 7) t.exporterAddress = pick(2) == 0;
    if (what == 8) t.maxFlows = 1 + pick(1000);
    if (what == 8 && t.record == "standard") t.egress = Egress(pick(2));
    if (what == 9) t.interfaces = {"eth*", "!r\"é/\\x"};
    if (what == 9) t.promiscuous = !t.promiscuous, t.filter = pick(2) ? "" : "not\nport 4739";
    if (what == 10) t.exporters.erase(name());
    if (what < 11) return;
    ExporterSettings& e = t.exporters[name()];
    static constexpr const char* vrfs[] = {"default", "default", "red", "r\"é"};
    static constexpr const char* interfaces[] = {"eth0", "eth0", "eth1", "e\\\""};
    if (e.localInterface.empty() || what == 11) e.localInterface = interfaces[pick(4)];
    if (what == 12) e.vrf = VrfName(vrfs[pick(4)]);
    if (what == 13) e.dscp = DscpValue(pick(64));
    if (what == 14) e.templateInterval = time();
    if (what == 15) e.mtu = 327 + pick(1000);
    if (what == 16) e.rateLimit = {RateLimit::Unit::octets, 1 + pick(1000000)};
    if (what == 17) e.collectors.erase(name());
    if (what < 18) return;
    const std::string address = pick(2) ? "192.0.2." : "2001:db8::";
    CollectorSettings c = {*IpGenAddr::fromString(address + std::to_string(1 + pick(4))),
                           static_cast<uint16_t>(4739 + pick(2))};
    if (pick(8) == 0) c = {{}, c.port, "collector.example"};
    const auto is = [&](const auto& other) { return other.second == c; };
    if (std::none_of(e.collectors.begin(), e.collectors.end(), is)) e.collectors[name()] = c;
  }
  uint32_t ids_ = 0;
};

}  // namespace agent
