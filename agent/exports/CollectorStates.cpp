#include "agent/exports/CollectorStates.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <tuple>
#include <utility>

#include "agent/host/Priorities.h"

namespace agent {
namespace {
using FlowTracking::ExporterInfo;
using Status = CollectorState::Status;

constexpr Seconds lookInterval{1};
constexpr size_t collectorsPerStep = 500;  // each costs about 2 us

const UdpPam* pamOf(const ExporterInfo* info, bool ipv6) {
  return info ? (ipv6 ? info->udpPam6() : info->udpPam4()).get() : nullptr;
}
template <class T>
SharedTable::Octets octetsOf(const T& value) {
  return std::as_bytes(std::span(&value, 1));
}

}  // namespace

std::string_view statusText(Status status) {
  static constexpr std::string_view names[] = {
      "sending", "waiting for namespace", "waiting for address", "waiting for template", "refused"};
  static_assert(std::size(names) == static_cast<size_t>(Status::refused) + 1);
  return names[static_cast<size_t>(status)];
}

class CollectorStates::Watch final : public ExporterInfo::Watcher {
 public:
  Watch(Ptr<ExporterInfo> info, bool ipv6, std::vector<Ptr<const UdpPam>>& came)
      : Watcher(std::move(info)), ipv6_(ipv6), came_(came) {
    note();
  }
  void handleUdpPam4() override { note(); }
  void handleUdpPam6() override { note(); }

 private:
  void note() {
    const Ptr<const UdpPam> pam = ipv6_ ? entity()->udpPam6() : entity()->udpPam4();
    if (pam && (came_.empty() || came_.back() != pam)) came_.push_back(pam);
  }
  const bool ipv6_;
  std::vector<Ptr<const UdpPam>>& came_;
};

CollectorStates::CollectorStates(const Exports& exports, const Ptr<TaskScheduler>& scheduler,
                                 const Clock& clock, AgentLog& log, Ptr<SharedTable> counters)
    : exports_(exports),
      clock_(clock),
      log_(log),
      counters_(std::move(counters)),
      task_(scheduler->timerTask("collector-states", afterAll, [this] { look(); })) {
  task_->scheduleIs(Seconds(0));
}

void CollectorStates::each(const Settings& settings, const CollectorName& after,
                           const Visit& visit) {
  for (auto t = settings.trackers.lower_bound(after.tracker); t != settings.trackers.end(); ++t) {
    const auto& exporters = t->second.exporters;
    const bool thisTracker = t->first == after.tracker;
    for (auto e = thisTracker ? exporters.lower_bound(after.exporter) : exporters.begin();
         e != exporters.end(); ++e) {
      const auto& collectors = e->second.collectors;
      const bool thisExporter = thisTracker && e->first == after.exporter;
      for (auto c = thisExporter ? collectors.upper_bound(after.collector) : collectors.begin();
           c != collectors.end(); ++c)
        if (!visit({t->first, e->first, c->first}, t->second, e->second, c->second)) return;
    }
  }
}

void CollectorStates::look() {
  size_t n = 0;
  bool more = false;
  each(exports_.runningSettings(), last_,
       [&](const CollectorName& name, const TrackerSettings& tracker, const ExporterSettings&,
           const CollectorSettings& collector) {
         if (++n > collectorsPerStep) {
           more = true;
           return false;
         }
         const bool ipv6 = collector.address.isIpv6();
         lookAt({{name.tracker, name.exporter}, ipv6},
                exports_.tree(tracker.type).exporterInfo(name.tracker, name.exporter));
         state(name);
         last_ = name;
         return true;
       });
  if (!more) {
    std::erase_if(known_, [this](const auto& k) { return k.second.turn != turn_; });
    std::erase_if(endpoints_, [this](const auto& e) {
      if (e.second.turn == turn_) return false;
      if (e.second.inTable) counters_->del(octetsOf(e.second.total.key));
      return true;
    });
    ++turn_;
    last_ = {};
  }
  task_->scheduleIs(more ? Seconds(0) : lookInterval);
}

void CollectorStates::lookAt(const EndpointKey& key, const Ptr<ExporterInfo>& info) {
  const auto [it, fresh] = endpoints_.try_emplace(key);
  Endpoint& e = it->second;
  if (info && (!e.watch || e.watch->entity() != info.get()))
    e.watch = std::make_shared<Watch>(info, key.second, e.came);
  const UdpPam* pam = pamOf(info.get(), key.second);
  if (fresh) e.total.key = {key.first.first, key.first.second, key.second};
  const bool seen = e.turn == turn_ && e.pam == pam;  // by another collector in this look
  e.turn = turn_;
  if (seen) return;
  const auto counts = [&t = e.total] { return std::tuple(t.sent, t.refused, t.undelivered); };
  const auto before = counts();
  for (const auto& one : e.came) e.follow(one.get(), one->counters());
  std::erase_if(e.came, [pam](const auto& one) { return one.get() != pam; });
  if (!pam) e.pam = nullptr;
  if (!e.inTable || counts() != before)
    e.inTable = counters_ && counters_->put(octetsOf(e.total.key), octetsOf(e.total));
}

/// What became of the datagrams since the last look. An endpoint serves all collectors of its
/// family: where some were taken and some refused, it is not known whose.
void CollectorStates::Endpoint::follow(const UdpPam* endpoint, const UdpPamCounters& now) {
  // A new endpoint may stand where an old one was, and then its address does not tell; but an
  // endpoint's counts never go down.
  const bool less = std::any_of(dropByErrno.begin(), dropByErrno.end(), [&](const auto& d) {
    const auto it = now.dropByErrno.find(d.first);
    return (it == now.dropByErrno.end() ? 0 : it->second) < d.second;
  });
  if (pam != endpoint || less || now.sent < sent) {
    pam = endpoint;
    sent = undelivered = 0;
    dropByErrno.clear();
    refused = partly = 0;
  }
  int cause = 0;
  uint64_t most = 0;
  for (const auto& [err, count] : now.dropByErrno) {
    const uint64_t more = count - std::exchange(dropByErrno[err], count);
    if (more > 0) total.addRefused(err, more);
    if (more > most) {
      most = more;
      cause = err;
    }
  }
  const uint64_t taken = now.sent - std::exchange(sent, now.sent);
  total.sent += taken;
  total.undelivered += now.undelivered - std::exchange(undelivered, now.undelivered);
  if (taken > 0) {
    refused = 0;
    partly = cause;
  } else if (cause != 0) {
    refused = cause;
    partly = 0;
  }
}

namespace {
std::string familyText(bool ipv6) { return ipv6 ? "IPv6" : "IPv4"; }

CollectorState withoutAddress(const Exports& exports, const std::string& host) {
  const std::string problem = exports.hostProblem(host);
  return {Status::waitingForAddress,
          problem.empty() ? "its host " + host + " has no address to use yet"
                          : "its host " + host + " cannot be looked up: " + problem,
          0};
}

CollectorState withoutSource(const Exports& exports, const ExporterSettings& e, bool ipv6) {
  const auto network = exports.networks().network(e.vrf);
  if (!network || !network->present())
    return {Status::waitingForNamespace,
            e.vrf.stringValue() == defaultVrf
                ? "its links are not known yet"
                : "there is no namespace " + namespaceOf(e.vrf).stringValue(),
            0};
  std::string why = linkProblem(*network, e.localInterface);
  if (why.empty())
    why = "interface " + linkPlace(*network, e.localInterface) + " has no " + familyText(ipv6) +
          " address to use";
  return {Status::waitingForAddress, std::move(why), 0};
}

CollectorState withoutSocket(const LibraryTree& tree, const CollectorName& name, bool ipv6) {
  const auto ftInfoSm = tree.infoSm ? tree.infoSm->ftInfoSm(name.tracker) : nullptr;
  const auto infoSm = ftInfoSm ? ftInfoSm->expInfoSm(name.exporter) : nullptr;
  const std::string problem =
      infoSm ? (ipv6 ? infoSm->pam6Problem() : infoSm->pam4Problem()) : std::string();
  return {Status::refused, "no socket" + (problem.empty() ? "" : ": " + problem), 0};
}

/// Empty when the collector has the templates.
std::string templateProblem(const LibraryTree& tree, const CollectorName& name,
                            FlowTracking::FlowTrackingType type) {
  const auto tracker = tree.templateSm ? tree.templateSm->ftTemplateSm(name.tracker) : nullptr;
  const auto templates = tracker ? tracker->ftExporterSm(name.exporter) : nullptr;
  if (templates && templates->hasTemplates(name.collector)) return {};
  if (templates && templates->templateReady()) return "it is about to be sent";
  return type == FlowTracking::FlowTrackingType::hardware
             ? "no device has published a data template"
             : "the tracker has no data template";
}
}  // namespace

CollectorState CollectorStates::find(const CollectorName& name) {
  const Settings& settings = exports_.runningSettings();
  const auto tracker = settings.trackers.find(name.tracker);
  if (tracker == settings.trackers.end()) return {};
  const auto exporter = tracker->second.exporters.find(name.exporter);
  if (exporter == tracker->second.exporters.end()) return {};
  const auto collector = exporter->second.collectors.find(name.collector);
  if (collector == exporter->second.collectors.end()) return {};
  const bool ipv6 = collector->second.address.isIpv6();
  if (collector->second.address.family() == IpGenAddr::Family::none)
    return withoutAddress(exports_, collector->second.host);
  const LibraryTree& tree = exports_.tree(tracker->second.type);
  const auto config = tree.exporterConfig(name.tracker, name.exporter);
  if (!config) return {Status::waitingForAddress, "", 0};
  if (ipv6 ? config->srcIp6Addr().isZero() : config->srcIpAddr().isZero())
    return withoutSource(exports_, exporter->second, ipv6);
  const auto info = tree.exporterInfo(name.tracker, name.exporter);
  const UdpPam* pam = pamOf(info.get(), ipv6);
  if (!pam) return withoutSocket(tree, name, ipv6);
  if (auto problem = templateProblem(tree, name, tracker->second.type); !problem.empty())
    return {Status::waitingForTemplate, std::move(problem), 0};
  const EndpointKey key{{name.tracker, name.exporter}, ipv6};
  auto endpoint = endpoints_.find(key);
  if (endpoint == endpoints_.end() || endpoint->second.pam != pam) {
    lookAt(key, info);  // younger than the last look, and its datagrams may all have been refused
    endpoint = endpoints_.find(key);
  }
  if (endpoint == endpoints_.end() || endpoint->second.pam != pam) return {};
  if (const int err = endpoint->second.refused; err != 0)
    return {Status::refused, std::strerror(err), 0};
  if (const int err = endpoint->second.partly; err != 0)
    return {Status::sending,
            "some of what this exporter sends over " + familyText(ipv6) +
                " is refused: " + std::strerror(err),
            0};
  return {};
}

const CollectorState& CollectorStates::state(const CollectorName& name) {
  CollectorState found = find(name);
  auto [it, fresh] = known_.try_emplace(name);
  Known& known = it->second;
  known.turn = turn_;
  const Status before = fresh ? Status::sending : known.state.status;
  found.since = fresh || before != found.status ? clock_.now() : known.state.since;
  tellChange(name, before, found);
  known.state = std::move(found);
  return known.state;
}

void CollectorStates::tellChange(const CollectorName& name, Status before,
                                 const CollectorState& now) {
  // Exporters tell of their addresses and namespaces themselves.
  if (before == now.status || (before != Status::refused && now.status != Status::refused)) return;
  const bool refused = now.status == Status::refused;
  log_.say(refused ? Severity::warning : Severity::info,
           "collector " + name.collector + " of exporter " + name.exporter + " of tracker " +
               name.tracker +
               (refused ? " is not reached: " + now.detail
                        : ": " + std::string(statusText(now.status)) + " again"),
           {.tracker = name.tracker, .exporter = name.exporter, .collector = name.collector});
}

}  // namespace agent
