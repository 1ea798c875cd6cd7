#pragma once
#include <random>

#include "Receiver.h"

namespace FlowTracking {

/// Where a collector is.
using Place = Tarn::Ipfix::CollectorInfo;

struct ExporterModel {
  std::string tracker;
  std::string name;
  Ptr<HwFlowTracking::ExporterConfig> config = nullptr;
  std::map<std::string, Place> collectors = {};
  std::vector<std::pair<std::string, Place>> left = {};  // removed, with nothing under way to them
  std::map<std::string, uint32_t> mtuMost = {};          // the largest since it joined
  uint32_t mtuBefore = 0;                                // when the event began

  std::string key(const Place& place) const {
    return (place.addr().isIpv6() ? "udpPam6-" : "udpPam4-") + tracker + "-" + name + " > " +
           place.stringValue();
  }
  bool canSendTo(const Place& place) const {
    return !(place.addr().isIpv6() ? config->srcIp6Addr().isZero() : config->srcIpAddr().isZero());
  }
  void configure(const std::string& collector, const Place& place) {
    if (place.addr().isIpv6()) {
      config->collectorIp6AndPortIs(collector, {place.addr().ip6Addr(), place.port()});
    } else {
      config->collectorIpAndPortIs(collector, {place.addr().ipAddr(), place.port()});
    }
  }
};

/// Three exporters of two trackers, what each of their collectors must hold, and what it was told.
class OptionsDataModel : protected Tree {
 protected:
  explicit OptionsDataModel(unsigned seed) : rnd_(seed) {}

  bool attached(const ExporterModel& e) const {
    const auto tracker = hwConfig->ftConfig(e.tracker);
    return tracker && tracker->expConfig(e.name) == e.config;
  }
  /// Each collector that is sent to.
  template <class Visit>
  void each(Visit visit) {
    for (auto& e : exporters_)
      for (const auto& [name, place] : e.collectors)
        if (attached(e) && e.canSendTo(place)) visit(e, place);
  }
  /// How many templates each has had, by set id.
  std::map<std::string, std::map<uint16_t, uint64_t>> templates() {
    std::map<std::string, std::map<uint16_t, uint64_t>> all;
    each([&](ExporterModel& e, const Place& place) {
      auto& had = receiver_.counts()[e.key(place)].templatesBySet;
      all[e.key(place)] = {{2, had[2]}, {3, had[3]}};
    });
    return all;
  }
  /// What holds whenever nothing is under way.
  void quiet() {
    for (auto& e : exporters_)
      for (auto& [key, most] : e.mtuMost) most = e.config->ipfixMtu();
    each([&](ExporterModel& e, const Place& place) {
      auto& picture = receiver_.pictures()[e.key(place)];
      for (const auto& [table, rows] : truth(e.tracker))
        for (const auto& [key, rest] : rows) ASSERT_EQ(picture[table][key], rest) << e.key(place);
    });
  }
  size_t pick(size_t n) { return rnd_() % n; }
  ExporterModel& anExporter() { return exporters_[pick(exporters_.size())]; }

  void receive() {
    for (const auto& d : sim->takeSent()) {
      const Seen seen{d};
      for (auto& e : exporters_) {
        if (d.endpoint.substr(8) != e.tracker + "-" + e.name) continue;
        if (seen.setId() > 255 && e.mtuMost.contains(d.endpoint + " > " + seen.to())) {
          ASSERT_LE(d.octets.size(), e.mtuMost.at(d.endpoint + " > " + seen.to()) - 48)
              << d.endpoint << " > " << seen.to();
        }
        ASSERT_EQ(seen.domain(), domainOf(e.tracker));
      }
      const std::string to = d.endpoint + " > " + seen.to();
      ASSERT_FALSE(gone_.contains(to) && d.time > gone_[to]) << to << " is there no more";
      receiver_.take(seen);
      if (testing::Test::HasFatalFailure()) return;
    }
  }

  Picture truth(const std::string& trackerName) const {
    Picture p;
    for (const auto& [id, index] : intfs->intfIndex())
      p[intfTable][netOctets(index, 4)] = id.stringValue();
    p[intfTable][netOctets(0x80000000, 4)] = "multicast";
    p[intfTable][netOctets(0x40000000, 4)] = "discard";
    p[intfTable][netOctets(0x3fffffff, 4)] = "CPU";
    p[intfTable][netOctets(0, 4)] = "unknown";
    for (const auto& [id, name] : vrfs->vrf()) p[vrfTable][netOctets(id, 4)] = name.stringValue();
    p[vrfTable][netOctets(0xffffff, 4)] = "";
    const auto status = hwStatus->ftStatus(trackerName);
    p[trackerTable][netOctets(hwConfig->ftConfig(trackerName)->ftId(), 4)] =
        trackerName + netOctets(static_cast<uint64_t>(status->activeInterval().count()), 2) +
        netOctets(static_cast<uint64_t>(status->inactiveTimeout().count()), 2) + netOctets(3, 2) +
        netOctets(1, 4) +
        netOctets(status->sampleRate() ? status->sampleRate() : hwStatus->sampleRate(), 4) +
        netOctets(1, 2);
    for (const auto& [id, t] : status->templateStatus()) {
      uint64_t indicator = 0;
      for (const auto& [position, entry] : t->ftTemplateEntry())
        if (entry.flowKey()) indicator |= uint64_t{1} << position;
      p[flowKeyTable][netOctets(id, 2)] = netOctets(indicator, 8);
    }
    return p;
  }

  void check(const ExporterModel& e, const Place& place) {
    const std::string to = e.key(place);
    Picture found = receiver_.pictures()[to];
    std::erase_if(found, [](const auto& table) { return table.second.empty(); });
    ASSERT_EQ(found, truth(e.tracker)) << to;
    const auto entry = stats->stats({e.tracker, e.name, place});
    ASSERT_TRUE(entry) << to;
    const auto& count = receiver_.counts()[to];
    EXPECT_EQ(entry->exportedMessageTotalCount(), count.messages) << to;
    EXPECT_EQ(entry->exportedOctetTotalCount(), count.octets) << to;
    EXPECT_EQ(entry->exportedFlowRecordTotalCount(), count.records) << to;
    for (const auto& [set, records] : count.recordsBySet) {
      const auto s = entry->setEntry(Tarn::Ipfix::SetId(set));
      EXPECT_EQ(s.exportedFlowRecordCount(), records) << to << " set " << set;
      EXPECT_EQ(s.exportedTemplateCount(), count.templatesBySet.at(set)) << to << " set " << set;
    }
  }
  static FtId domainOf(const std::string& tracker) { return tracker == "ft1" ? 7 : 8; }

  std::mt19937 rnd_;
  std::vector<ExporterModel> exporters_{{"ft1", "e1"}, {"ft1", "e2"}, {"ft2", "e1"}};
  Receiver receiver_;
  std::map<std::string, double> gone_;  // since when
};

}  // namespace FlowTracking
