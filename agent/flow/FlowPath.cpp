#include "agent/flow/FlowPath.h"

#include <sys/epoll.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <random>
#include <system_error>
#include <utility>

#include "agent/flow/CaptureMeter.h"
#include "agent/host/Printable.h"
#include "platform/Platform.h"
#include "platform/linux/Netns.h"

namespace agent::flow {
namespace {
constexpr TaskPriority priority = 3;  // behind templates and options data
constexpr uint64_t queuedMax =
    256;  // datagrams in an endpoint; templates and changes wait behind them
constexpr Seconds drainRetry{0.002};
constexpr Seconds flushDelay{0.1};  // how long a message waits to be full
constexpr Seconds tick{0.1};
constexpr int ticksPerTelling = 10;
constexpr int blocksPerTask = 8;
constexpr std::chrono::seconds progressEvery{10};
constexpr std::chrono::seconds retry{1};  // what could not be had

uint64_t randomSeed() {
  std::random_device device;
  return uint64_t{device()} << 32 | device();
}
}  // namespace

FlowPath::FlowPath(std::string tracker, FlowPathHost host, const LibraryTree& tree,
                   const TrackerSettings& settings, FlowTracking::TemplateId firstTemplate)
    : tracker_(std::move(tracker)),
      host_(std::move(host)),
      settings_(settings),
      plan_(
          std::make_shared<const RecordPlan>(settings.definition, firstTemplate, settings.tunnel)),
      export_(tracker_, tree),
      warnings_(tracker_, host_.log),
      ended_{.key = FlowTracking::FlowPathKey(tracker_)} {
  const auto scheduler = host_.loop->taskScheduler();
  const auto task = [&](const char* kind, auto body) {
    return scheduler->timerTask(std::string("flowPath-") + kind + '-' + tracker_, priority, body);
  };
  reviewTask_ = task("Review", [this] { review(); });
  drainTask_ = task("Drain", [this] { drainAll(); });
  flushTask_ = task("Flush", [this] { export_.flush(); });
  tickTask_ = task("Tick", [this] { handleTick(); });
  tickTask_->scheduleIs(Seconds(0));
  reviewSoon();
  const auto changed = [this](const auto&...) { reviewSoon(); };
  follower_ = std::make_unique<NetworkFollower>(
      host_.networks, NetworkFollower::Handlers{changed, changed, changed});
}

FlowPath::~FlowPath() {
  endSoon();
  for (Leaving& l : leaving_) l.meter->giveUp();  // all of them before the first is waited for
  for (Leaving& l : leaving_) {
    l.meter->stop();
    while (drain(l)) {
    }
  }
  export_.end();
  tellLosses();
  hide();
}

void FlowPath::hide() {
  if (!host_.counters) return;
  const FlowTracking::FlowPathKey key(tracker_);
  host_.counters->del(std::as_bytes(std::span(&key, 1)));
  host_.counters = nullptr;
}

void FlowPath::settingsIs(const TrackerSettings& settings, FlowTracking::TemplateId firstTemplate) {
  const bool anew = !sameKeys(settings, settings_, Effect::flowsAnew);
  if (anew)
    plan_ = std::make_shared<const RecordPlan>(settings.definition, firstTemplate, settings.tunnel);
  settings_ = settings;
  if (anew && !file_)
    for (auto& [vrf, source] : sources_) release(source);
  reviewSoon();
}

bool FlowPath::formerRecordsSent() {
  const auto former = [this](const Leaving& l) {
    return l.meter->plan()->templateId(0) != plan_->templateId(0);
  };
  if (std::any_of(leaving_.begin(), leaving_.end(), former) || !export_.templatesTold())
    return false;
  export_.flush();
  return true;
}

void FlowPath::fileIs(std::unique_ptr<CaptureFile> file, std::function<void(bool sent)> done) {
  const VrfName vrf{std::string(defaultVrf)};
  Source& source = sources_[vrf];
  auto meter = std::make_unique<FileMeter>(plan_, std::move(file), settings_.maxFlows, orders(vrf));
  file_ = meter.get();
  source.meter = std::move(meter);
  fileDone_ = std::move(done);
  watchQueue(source);
}

// --- Meters ---

MeterOrders FlowPath::orders(const VrfName& vrf) const {
  MeterOrders o;
  o.times = {settings_.activeInterval.count(), settings_.inactiveTimeout.count()};
  o.sampleRate = settings_.sampleRate;
  o.hold = hold_;
  o.direction = settings_.direction;
  o.ownExport = settings_.ownExport;
  o.expression = settings_.filter;
  o.context.sampleRate = settings_.sampleRate;
  o.context.host.onlyOwnLeave = settings_.direction == Direction::once;
  for (const auto& [id, name] : host_.vrfs->vrf())
    if (name == vrf) o.context.vrfId = id;
  if (plan_->namesInterfaces())
    for (const auto& [name, index] : host_.indexes->intfIndex())
      o.context.interfaceNames.emplace(index, name.stringValue());
  const auto network = host_.networks->network(vrf);
  if (!network || !network->present()) return o;
  for (const auto& [kernel, link] : network->links())
    for (const LinkAddress& a : link.addresses) o.context.host.addressIs(a.local);
  o.interfaces = exportedLinks(*network, settings_.interfaces);
  for (const auto& [kernel, exported] : o.interfaces) {
    const Link& link = network->links().at(kernel);
    if (!link.hasEthernetHeader()) o.withoutEthernet.push_back(kernel);
    if (settings_.promiscuous) o.promiscuous.emplace(kernel, link.arrival);
  }
  return o;
}

/// The indexes that records have of the links that match, by the kernel's.
std::map<uint32_t, uint32_t> FlowPath::exportedLinks(const VrfNetwork& network,
                                                     const InterfacePatterns& patterns) const {
  std::map<uint32_t, uint32_t> exported;
  for (const auto& [kernel, link] : network.links()) {
    const std::string name = exportedName(network.vrf(), link.name);
    if (!takes(patterns, name)) continue;
    const auto index = host_.indexes->intfIndex().find(IntfId(name));
    if (index != host_.indexes->intfIndex().end()) exported.emplace(kernel, index->second);
  }
  return exported;
}

void FlowPath::review() {
  if (ending_) return;
  if (file_) {
    for (auto& [vrf, source] : sources_) source.meter->ordersIs(orders(vrf));
    return;
  }
  if (host_.surveyed()) warnings_.review(settings_, *host_.networks);
  opened_ = false;
  for (const auto& [vrf, network] : host_.networks->network()) reviewNetwork(vrf, sources_[vrf]);
  for (auto it = sources_.begin(); it != sources_.end();) {
    if (host_.networks->network(it->first)) {
      ++it;
    } else {
      release(it->second);
      captureIs(it->first, {});
      it = sources_.erase(it);
    }
  }
}

void FlowPath::reviewNetwork(const VrfName& vrf, Source& source) {
  const MeterOrders wanted = orders(vrf);
  const std::string where = placeText(vrf);
  const LogFields fields{.tracker = tracker_, .vrf = vrf.stringValue()};
  if (wanted.interfaces.empty()) {
    if (source.meter) host_.log.info(where + "no interface to track flows on any more", fields);
    release(source);
    captureIs(vrf, {});
    return;
  }
  if (source.meter && source.netns != host_.networks->network(vrf)->netns()) release(source);
  if (!source.meter) {
    const auto now = std::chrono::steady_clock::now();
    if (now < source.nextTry) return reviewTask_->scheduleLowestIs(retry);
    // To open a packet socket holds the loop up: others get their turn between two.
    if (std::exchange(opened_, true)) return reviewTask_->scheduleLowestIs(Seconds(0));
    if (!openMeter(vrf, source, wanted)) {
      source.nextTry = now + retry;
      return reviewTask_->scheduleLowestIs(retry);
    }
  }
  source.meter->ordersIs(wanted);
  if (source.routes)
    source.routes->interfacesIs(exportedLinks(*host_.networks->network(vrf), {"*", "*/*"}));
  if (source.tracked == wanted.interfaces) return;
  source.tracked = wanted.interfaces;
  std::string names;
  for (const auto& [kernel, exported] : wanted.interfaces) {
    if (names.size() > 200) {
      names += ", ...";
      break;
    }
    names += (names.empty() ? "" : ", ") +
             printable(host_.networks->network(vrf)->links().at(kernel).name);
  }
  host_.log.info(where + "tracking flows on " + names, fields);
}

/// False: it cannot be had now. What the operator should know is told once.
bool FlowPath::openMeter(const VrfName& vrf, Source& source, const MeterOrders& wanted) {
  try {
    const NetnsScope inside(vrf.stringValue() == defaultVrf
                                ? std::string()
                                : host_.netnsDir + "/ns-" + vrf.stringValue());
    source.netns = inside.id();
    // Another namespace is there by now; its links will be told.
    if (source.netns != host_.networks->network(vrf)->netns()) return false;
    if (settings_.egress == Egress::route) source.routes = std::make_unique<EgressRoutes>(*plan_);
    source.meter = std::make_unique<CaptureMeter>(plan_, settings_.maxFlows, randomSeed(), wanted,
                                                  source.netns);
    tellProgramError(vrf, source);
    watchQueue(source);
  } catch (const std::exception& e) {  // a right, descriptors, memory, threads
    source.meter.reset();
    source.routes.reset();
    if (source.problem != e.what())
      host_.log.warning(placeText(vrf) + "cannot track flows, trying again: " + e.what(),
                        {.tracker = tracker_, .vrf = vrf.stringValue()});
    source.problem = e.what();
    captureIs(vrf, source.problem);
    return false;
  }
  source.problem.clear();
  captureIs(vrf, "tracking flows");
  source.tracked.clear();
  return true;
}

std::string FlowPath::placeText(const VrfName& vrf) const {
  return "tracker " + printable(tracker_) + ", VRF " + printable(vrf.stringValue()) + ": ";
}

/// Each time that there is a new meter: what it does not count is missing from all it reports.
void FlowPath::tellProgramError(const VrfName& vrf, const Source& source) const {
  const int problem = source.meter->counters().programError;
  if (problem == 0) return;
  const bool once = settings_.direction == Direction::once;
  host_.log.warning(
      placeText(vrf) +
          (once ? "what this machine sends is not counted, direction \"once\" is as \"ingress\", "
                  "and "
                : "") +
          "segments that were put together count as one packet" +
          (settings_.filter.empty() ? ""
                                    : ", and the filter sees no VLAN tag that a device took off") +
          ": the kernel refuses the filter that "
          "tells them apart, which needs CAP_BPF or CAP_SYS_ADMIN: " +
          std::generic_category().message(problem),
      {.tracker = tracker_, .vrf = vrf.stringValue()});
}

void FlowPath::watchQueue(Source& source) {
  FlowMeter& meter = *source.meter;
  source.watch = host_.loop->fdWatch(meter.queue().fd(), EPOLLIN, [this, &meter](uint32_t) {
    meter.queue().heard();
    drainTask_->scheduleLowestIs(Seconds(0));
  });
}

void FlowPath::release(Source& source) {
  if (!source.meter) return;
  source.meter->endSoon();
  leaving_.push_back({{std::move(source.meter), std::move(source.routes), std::move(source.watch)},
                      std::chrono::steady_clock::now() + leaveMax});
}

/// Looks after the meters that leave. Nothing here waits for their threads.
void FlowPath::forgetLeft() {
  const auto now = std::chrono::steady_clock::now();
  std::erase_if(leaving_, [&](Leaving& l) {
    FlowMeter& meter = *l.meter;
    const bool give = hold_ || now >= l.end;
    if (give) meter.giveUp();
    if (!meter.done()) return false;
    if (!give && drain(l)) {
      drainTask_->scheduleLowestIs(Seconds(0));
      return false;
    }
    while (drain(l)) {  // without a collector they are counted as lost
    }
    addCounters(meter, ended_);
    if (&meter == file_) file_ = nullptr;
    l.watch.reset();  // before the descriptor that it watches
    return true;
  });
}

/// Logs each meter whose thread failed, and has it made anew.
void FlowPath::tellFailures() {
  for (auto& [vrf, source] : sources_) {
    if (!source.meter || !source.meter->done() || source.meter->failure().empty()) continue;
    host_.log.warning(
        placeText(vrf) + "stopped tracking flows, trying again: " + source.meter->failure(),
        {.tracker = tracker_, .vrf = vrf.stringValue()});
    captureIs(vrf, source.meter->failure());
    release(source);
    reviewTask_->scheduleLowestIs(retry);
  }
}

void FlowPath::endSoon() {
  ending_ = true;
  for (auto& [vrf, source] : sources_) {
    release(source);
    captureIs(vrf, {});
  }
}
bool FlowPath::left() {
  forgetLeft();
  if (!leaving_.empty()) {
    drainTask_->scheduleLowestIs(Seconds(0));
    return false;
  }
  export_.flush();
  return true;
}
bool FlowPath::ended() { return left() && (hold_ || export_.queued() == 0); }

// --- Records ---

bool FlowPath::drain(FlowMeter& meter, EgressRoutes* routes) {
  RecordBlock* block = meter.queue().take();
  if (!block) return false;
  const RecordPlan& plan = *meter.plan();
  if (routes) routes->complete(block->place, {block->octets.data(), block->used});
  if (!toNobody())
    export_.recordsIs(plan.templateId(block->place), plan.recordLens()[block->place],
                      {block->octets.data(), block->used});
  meter.queue().release(block);
  return true;
}

void FlowPath::drainAll() {
  if (hold_) return;  // the tick comes back to it
  int blocks = 0;
  std::vector<const Live*> all;
  for (const auto& [vrf, source] : sources_)
    if (source.meter) all.push_back(&source);
  for (const Leaving& l : leaving_) all.push_back(&l);
  for (bool any = true; any;) {
    any = false;
    for (const Live* live : all) {
      if (++blocks > blocksPerTask || export_.queued() > queuedMax) {
        drainTask_->scheduleLowestIs(blocks > blocksPerTask ? Seconds(0) : drainRetry);
        return;
      }
      any = drain(*live) || any;
    }
  }
  // What a file gives is packed the same way each time, whatever the clock says.
  if (!file_) flushTask_->scheduleLowestIs(flushDelay);
}

void FlowPath::handleTick() {
  tickTask_->scheduleIs(tick);
  if (settings_.samplingOption) export_.samplingIs(settings_.sampleRate);
  const bool hold = !toNobody() && !export_.ready();
  if (hold != hold_) {
    hold_ = hold;
    heldSince_ = std::chrono::steady_clock::now();
    review();
    drainTask_->scheduleLowestIs(Seconds(0));
  }
  forgetLeft();
  if (ticks_++ % ticksPerTelling == 0) {
    tellCounters();
    tellFilterErrors();
    if (!file_) tellFailures();
  }
  if (file_ && fileDone_) followFile();
}

void FlowPath::followFile() {
  const auto now = std::chrono::steady_clock::now();
  const std::string who = "tracker " + printable(tracker_) + ": ";
  if (!file_->done() && now - progressTold_ >= progressEvery) {
    progressTold_ = now;
    host_.log.info(who + std::to_string(file_->percent()) + " % of the capture was read",
                   {.tracker = tracker_});
  }
  std::string problem = file_->done() ? file_->failure() : std::string();
  if (hold_ && now - heldSince_ >= readyMax)
    problem = "no collector was ready for " + std::to_string(readyMax.count()) + " s";
  if (!problem.empty()) {
    host_.log.error(who + "the capture is not exported: " + problem, {.tracker = tracker_});
    std::exchange(fileDone_, nullptr)(false);
  } else if (hold_) {
    return;
  } else if (file_->done() && drain(*file_, nullptr)) {
    drainTask_->scheduleLowestIs(Seconds(0));
  } else if (file_->done() && export_.queued() == 0) {
    export_.flush();
    tellCounters();
    std::exchange(fileDone_, nullptr)(true);
  }
}

}  // namespace agent::flow
