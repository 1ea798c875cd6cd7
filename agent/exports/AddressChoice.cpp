#include "agent/exports/AddressChoice.h"

#include <algorithm>
#include <set>

#include "agent/host/Printable.h"

namespace agent {
namespace {
using HwFlowTracking::ExporterConfig;

bool hasHosts(const ExporterSettings& exporter) {
  return std::any_of(exporter.collectors.begin(), exporter.collectors.end(),
                     [](const auto& c) { return !c.second.host.empty(); });
}
bool isKnown(const IpGenAddr& address) { return address.family() != IpGenAddr::Family::none; }
}  // namespace

class AddressChoice::SourceWatcher final : public ExporterConfig::Watcher {
 public:
  SourceWatcher(Ptr<const ExporterConfig> config, const std::function<void()>& changed)
      : Watcher(std::move(config)), changed_(changed) {}
  void handleSrcIpAddr() override { changed_(); }
  void handleSrcIp6Addr() override { changed_(); }

 private:
  const std::function<void()>& changed_;
};

AddressChoice::AddressChoice(Entities& entities, const LibraryTrees& trees, AgentLog& log,
                             Hosts hosts)
    : entities_(entities), trees_(trees), log_(log), hosts_(std::move(hosts)) {}
AddressChoice::~AddressChoice() = default;

Changes AddressChoice::apply(const Settings& settings) {
  const Changes changes = entities_.apply(chosen(settings));
  settings_ = settings;
  review();  // exporters that are new have their sources only now
  return changes;
}

void AddressChoice::review() {
  // Also where no host has an address now: a collector may have the one that it had.
  if (!states_.empty()) entities_.apply(chosen(settings_));
}

Settings AddressChoice::chosen(const Settings& settings) {
  Settings out = settings;
  std::map<Name, State> before = std::exchange(states_, {});
  for (auto& [trackerName, tracker] : out.trackers)
    for (auto& [exporterName, exporter] : tracker.exporters) {
      if (!hasHosts(exporter)) continue;
      const Name name(trackerName, exporterName);
      states_[name] = choose(name, exporter, std::move(before[name]));
    }
  return out;
}

AddressChoice::State AddressChoice::choose(const Name& name, ExporterSettings& exporter,
                                           State before) {
  const auto& trackers = entities_.settings().trackers;
  const auto tracker = trackers.find(name.first);
  if (tracker == trackers.end() || !tracker->second.exporters.contains(name.second)) return {};
  const auto& running = tracker->second.exporters.at(name.second).collectors;
  const auto config = trees_.tree(tracker->second.type).exporterConfig(name.first, name.second);
  State state;
  state.watcher = std::move(before.watcher);
  if (!state.watcher || state.watcher->entity() != config.get())
    state.watcher = std::make_unique<SourceWatcher>(config, hosts_.later);
  const bool has4 = !config->srcIpAddr().isZero();
  const bool has6 = !config->srcIp6Addr().isZero();
  std::set<std::pair<IpGenAddr, uint16_t>> taken;
  for (const auto& [collector, c] : exporter.collectors)
    if (c.host.empty()) taken.emplace(c.address, c.port);
  for (auto& [collector, c] : exporter.collectors) {
    if (c.host.empty()) continue;
    std::string& told = state.told[collector] = before.told[collector];
    const auto* const found = hosts_.addresses(c.host);
    if (!found) continue;
    const auto usable = [&, port = c.port](const IpGenAddr& a) {
      return (a.isIpv4() ? has4 : has6) && !taken.contains({a, port});
    };
    const auto now = running.find(collector);
    const IpGenAddr current =
        now != running.end() && now->second.host == c.host ? now->second.address : IpGenAddr();
    // An exporter without any source address cannot send elsewhere either: nothing moves.
    const bool stays = std::find(found->begin(), found->end(), current) != found->end() &&
                       (usable(current) || !(has4 || has6));
    const auto first = std::find_if(found->begin(), found->end(), usable);
    if (stays) {
      c.address = current;
    } else if (first != found->end()) {
      c.address = *first;
    }
    if (isKnown(c.address)) taken.emplace(c.address, c.port);
    if (isKnown(c.address) || has4 || has6) tell(name, collector, c, told);
  }
  return state;
}

void AddressChoice::tell(const Name& name, const std::string& collector, const CollectorSettings& c,
                         std::string& told) {
  std::string text = isKnown(c.address)
                         ? c.host + " is " + c.address.stringValue()
                         : "waits: no address of " + c.host +
                               " can be used: its exporter sends from none of that family, or "
                               "another of its collectors has it";
  if (text == told) return;
  told = std::move(text);
  log_.say(isKnown(c.address) ? Severity::info : Severity::warning,
           "collector " + printable(collector) + " of exporter " + printable(name.second) +
               " of tracker " + printable(name.first) + ": " + told);
}

}  // namespace agent
