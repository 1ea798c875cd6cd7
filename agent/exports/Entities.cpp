#include "agent/exports/Entities.h"

#include <algorithm>
#include <optional>
#include <tuple>
#include <vector>

#include "agent/host/Printable.h"
#include "agent/records/FlowTemplates.h"

namespace agent {
using FlowTracking::TemplateId;
using HwFlowTracking::ExporterConfig;
using HwFlowTracking::FtConfig;
using HwFlowTracking::FtStatus;

namespace {
std::string describe(const char* noun, const Changes::Count& n) {
  std::string out;
  const auto add = [&](size_t k, const char* verb) {
    if (k == 0) return;
    out += (out.empty() ? std::string(noun) + ": " : std::string(", ")) + std::to_string(k) + ' ' +
           verb;
  };
  add(n.added, "added");
  add(n.removed, "removed");
  add(n.changed, "changed");
  return out;
}

uint32_t ms(std::chrono::milliseconds t) { return static_cast<uint32_t>(t.count()); }

void write(const TrackerSettings& from, FtConfig& config, FtStatus& status) {
  config.activeIntervalIs(ms(from.activeInterval));
  config.localPortIs(from.localPort);
  status.activeIntervalIs(from.activeInterval);
  status.inactiveTimeoutIs(from.inactiveTimeout);
  status.sampleRateIs(from.sampleRate);
}

void delCollector(ExporterConfig& config, const std::string& name) {
  config.collectorIpAndPortDel(name);
  config.collectorIp6AndPortDel(name);
}

/// Writes a collector into its family's map, and then removes it from the other's: one that moves
/// between the families is never absent.
void setCollector(ExporterConfig& config, const std::string& name, const CollectorSettings& c) {
  if (c.address.family() == IpGenAddr::Family::none) {
    delCollector(config, name);
  } else if (c.address.isIpv4()) {
    config.collectorIpAndPortIs(name, IpAndPort{c.address.ipAddr(), c.port});
    config.collectorIp6AndPortDel(name);
  } else {
    config.collectorIp6AndPortIs(name, Ip6AndPort{c.address.ip6Addr(), c.port});
    config.collectorIpAndPortDel(name);
  }
}

using Collectors = std::map<std::string, CollectorSettings>;
using Destination = std::pair<IpGenAddr, uint16_t>;
Destination destinationOf(const CollectorSettings& c) { return {c.address, c.port}; }

/// The collectors of both with another destination, each after the one that leaves the
/// destination it takes; in a ring the first does not wait.
std::vector<std::string> changedInOrder(const Collectors& running, const Collectors& wanted) {
  std::map<Destination, std::string> holder;  // only of those that will leave it
  std::vector<std::string> changed;
  for (const auto& [name, c] : wanted) {
    auto it = running.find(name);
    if (it == running.end() || it->second == c) continue;
    changed.push_back(name);
    holder.emplace(destinationOf(it->second), name);
  }
  std::vector<std::string> order;
  std::set<std::string> seen;
  for (const std::string& first : changed) {
    std::vector<std::string> waiting;
    const std::string* next = &first;
    while (next && seen.insert(*next).second) {
      waiting.push_back(*next);
      auto it = holder.find(destinationOf(wanted.at(*next)));
      next = it == holder.end() ? nullptr : &it->second;
    }
    order.insert(order.end(), waiting.rbegin(), waiting.rend());
  }
  return order;
}

}  // namespace

std::string describe(const Changes& changes) {
  std::string out;
  for (const std::string& part :
       {describe("trackers", changes.trackers), describe("exporters", changes.exporters),
        describe("collectors", changes.collectors)}) {
    if (part.empty()) continue;
    if (!out.empty()) out += "; ";
    out += part;
  }
  return out.empty() ? "nothing changed" : out;
}

struct Entities::Exporter {
  ExporterSettings settings;
  Ptr<ExporterConfig> config;
  std::unique_ptr<ExporterSide> side;
};

struct Entities::Tracker {
  TrackerSettings settings;
  Ptr<FtConfig> config;
  Ptr<FtStatus> status;
  std::map<std::string, Exporter> exporters;
  TemplateId firstTemplate = agent::firstFlowTemplate;
  std::vector<TemplateId> formerTemplates = {};
};

Entities::Entities(LibraryTrees& trees, SourceFinder::NetworkOf networkOf,
                   Ptr<Ipfix::ElementIdColl> registry, AgentLog& log,
                   std::function<void()> readiness)
    : trees_(trees),
      finder_(std::move(networkOf)),
      registry_(std::move(registry)),
      log_(log),
      readiness_(std::move(readiness)) {}
Entities::~Entities() { trees_.releaseReactors(); }

Changes Entities::apply(Settings wantedSettings) {
  settings_ = std::move(wantedSettings);
  const Settings& settings = settings_;
  Changes changes;
  for (auto it = trackers_.begin(); it != trackers_.end();) {
    auto wanted = settings.trackers.find(it->first);
    if (wanted == settings.trackers.end() || wanted->second.type != it->second->settings.type) {
      removeTracker(it->first, *it->second, changes);
      it = trackers_.erase(it);
    } else {
      removeFrom(*it->second, wanted->second, changes);
      ++it;
    }
  }
  for (auto& [name, tracker] : trackers_)
    change(name, *tracker, settings.trackers.at(name), changes);
  for (const auto& [name, wanted] : settings.trackers) {
    if (auto it = trackers_.find(name); it != trackers_.end()) {
      addExporters(name, *it->second, wanted, changes);
    } else {
      addTracker(name, wanted, changes);
    }
  }
  return changes;
}

void Entities::removeTracker(const std::string& name, Tracker& tracker, Changes& changes) {
  ++changes.trackers.removed;
  changes.exporters.removed += tracker.exporters.size();
  for (const auto& [exporterName, exporter] : tracker.exporters)
    changes.collectors.removed += exporter.settings.collectors.size();
  const LibraryTree& t = trees_.make(tracker.settings.type);
  t.status->ftStatusDel(name);
  t.config->ftConfigDel(name);
}

void Entities::removeFrom(Tracker& tracker, const TrackerSettings& wanted, Changes& changes) {
  for (auto it = tracker.exporters.begin(); it != tracker.exporters.end();) {
    Exporter& exporter = it->second;
    auto w = wanted.exporters.find(it->first);
    if (w == wanted.exporters.end()) {
      ++changes.exporters.removed;
      changes.collectors.removed += exporter.settings.collectors.size();
      tracker.config->expConfigDel(it->first);  // its side hears it become unready
      it = tracker.exporters.erase(it);
      continue;
    }
    auto& collectors = exporter.settings.collectors;
    for (auto c = collectors.begin(); c != collectors.end();) {
      if (w->second.collectors.contains(c->first)) {
        ++c;
        continue;
      }
      ++changes.collectors.removed;
      delCollector(*exporter.config, c->first);
      c = collectors.erase(c);
    }
    ++it;
  }
}

void Entities::change(const std::string& name, Tracker& tracker, const TrackerSettings& wanted,
                      Changes& changes) {
  TrackerSettings& now = tracker.settings;
  if (!sameKeys(now, wanted)) ++changes.trackers.changed;
  if (now.definition != wanted.definition) {
    for (const auto& [id, status] : tracker.status->templateStatus())
      if (id >= tracker.firstTemplate && id < tracker.firstTemplate + flowTemplateStep)
        tracker.formerTemplates.push_back(id);
    tracker.firstTemplate = nextFlowTemplate(tracker.firstTemplate);
    publishTemplates(name, tracker, wanted);
  }
  if (!sameKeys(now, wanted, Effect::trackerAnew)) {
    replaceTracker(name, tracker, wanted, changes);
    return;
  }
  write(wanted, *tracker.config, *tracker.status);
  for (auto& [exporterName, exporter] : tracker.exporters) {
    const ExporterSettings& other = wanted.exporters.at(exporterName);
    if (!sameKeys(exporter.settings, other)) ++changes.exporters.changed;
    changeExporter(exporter, other, changes);
  }
  now = wanted;
}

void Entities::changeExporter(Exporter& exporter, const ExporterSettings& wanted,
                              Changes& changes) {
  ExporterSettings& now = exporter.settings;
  ExporterConfig& config = *exporter.config;
  // What marks and bounds packets comes before what makes them leave.
  config.dscpIs(wanted.dscp);
  config.ipfixMtuIs(wanted.mtu);
  config.rateLimitIs(wanted.rateLimit);
  // That of a new exporter has no name yet, so it always differs.
  if (now.vrf != wanted.vrf || now.localInterface != wanted.localInterface)
    exporter.side->placeIs(wanted.vrf, wanted.localInterface);
  for (const std::string& name : changedInOrder(now.collectors, wanted.collectors)) {
    ++changes.collectors.changed;
    const CollectorSettings& c = wanted.collectors.at(name);
    if (!c.host.empty()) delCollector(config, name);  // a new session
    setCollector(config, name, c);
  }
  for (const auto& [name, c] : wanted.collectors) {
    if (now.collectors.contains(name)) continue;
    ++changes.collectors.added;
    setCollector(config, name, c);
  }
  config.templateIntervalIs(ms(wanted.templateInterval));
  now = wanted;
}

Entities::Tracker Entities::make(const std::string& name, const TrackerSettings& wanted,
                                 Ptr<FtStatus> status, Changes& changes) {
  Tracker made{wanted, HwFlowTracking::ftConfigFactory(name, wanted.id), std::move(status), {}};
  write(wanted, *made.config, *made.status);
  addExporters(name, made, wanted, changes);
  return made;
}

/// For a new id, which is fixed in its entity, and for any other key with Effect::trackerAnew. It
/// opens new sockets, since to collectors it is another tracker.
void Entities::replaceTracker(const std::string& name, Tracker& tracker,
                              const TrackerSettings& wanted, Changes& changes) {
  // Exporters that stay are not counted as added: the tracker is counted as changed.
  Changes inside;
  Tracker fresh = make(name, wanted, tracker.status, inside);
  fresh.firstTemplate = tracker.firstTemplate;
  fresh.formerTemplates = tracker.formerTemplates;
  for (const auto& [exporterName, exporter] : wanted.exporters) {
    auto old = tracker.exporters.find(exporterName);
    if (old == tracker.exporters.end()) {
      ++changes.exporters.added;
      changes.collectors.added += exporter.collectors.size();
      continue;
    }
    const auto& collectors = old->second.settings.collectors;
    for (const auto& [collectorName, c] : exporter.collectors) {
      auto it = collectors.find(collectorName);
      if (it == collectors.end()) {
        ++changes.collectors.added;
      } else if (it->second != c) {
        ++changes.collectors.changed;
      }
    }
  }
  trees_.make(wanted.type).config->ftConfigIs(fresh.config);
  tracker = std::move(fresh);
}

/// Devices bring their own templates.
void Entities::publishTemplates(const std::string& name, Tracker& tracker,
                                const TrackerSettings& wanted) {
  if (wanted.type != LibraryTrees::Type::software) return;
  const RecordLayouts layouts = recordLayouts(wanted.definition);
  // All templates leave in one message. Collectors know the former ones, so these need not be
  // there.
  uint32_t len = messageLenFor(layouts);
  for (const TemplateId id : tracker.formerTemplates) {
    len += 4;
    for (const auto& [position, entry] : tracker.status->templateStatus(id)->ftTemplateEntry())
      len += entry.specifierLen();
  }
  const auto& exporters = wanted.exporters;
  const bool fit = std::all_of(exporters.begin(), exporters.end(), [&](const auto& e) {
    return Ipfix::IpfixConst::ipUdpHeaderLen() + len <= e.second.mtu;
  });
  if (!fit)
    for (const TemplateId id : std::exchange(tracker.formerTemplates, {}))
      tracker.status->templateStatusDel(id);
  std::string problem;
  for (const auto& t : flowTemplates(layouts, tracker.firstTemplate, *registry_, problem))
    tracker.status->templateStatusIs(t);
  if (!problem.empty())
    log_.error("tracker " + name + ": no flow templates: " + problem, {.tracker = name});
}

TemplateId Entities::firstFlowTemplate(const std::string& tracker) const {
  const auto it = trackers_.find(tracker);
  return it == trackers_.end() ? agent::firstFlowTemplate : it->second->firstTemplate;
}

bool Entities::forgetTemplates(const std::function<bool(const std::string& tracker)>& unused) {
  bool any = false;
  for (auto& [name, tracker] : trackers_) {
    if (tracker->formerTemplates.empty()) continue;
    any = true;
    if (!unused(name)) continue;
    for (const TemplateId id : std::exchange(tracker->formerTemplates, {}))
      tracker->status->templateStatusDel(id);
  }
  return any;
}

void Entities::addTracker(const std::string& name, const TrackerSettings& wanted,
                          Changes& changes) {
  ++changes.trackers.added;
  auto tracker =
      std::make_unique<Tracker>(make(name, wanted, HwFlowTracking::ftStatusFactory(name), changes));
  publishTemplates(name, *tracker, wanted);
  const Tracker& added = *(trackers_[name] = std::move(tracker));
  const LibraryTree& t = trees_.make(wanted.type);
  t.config->ftConfigIs(added.config);
  t.status->ftStatusIs(added.status);
}

void Entities::addExporters(const std::string& trackerName, Tracker& tracker,
                            const TrackerSettings& wanted, Changes& changes) {
  for (const auto& [name, e] : wanted.exporters) {
    if (tracker.exporters.contains(name)) continue;
    ++changes.exporters.added;
    Exporter exporter;
    exporter.config = HwFlowTracking::exporterConfigFactory(name);
    exporter.side = std::make_unique<ExporterSide>(finder_, wanted.type, trackerName,
                                                   exporter.config, log_, [this](bool ready) {
                                                     ready ? ++ready_ : --ready_;
                                                     readiness_();
                                                   });
    changeExporter(exporter, e, changes);
    const Ptr<ExporterConfig> config = exporter.config;
    tracker.exporters.emplace(name, std::move(exporter));
    tracker.config->expConfigIs(config);  // complete: what it sets off finds it so
  }
}

}  // namespace agent
