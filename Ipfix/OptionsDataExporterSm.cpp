#include "Ipfix/OptionsDataExporterSm.h"

#include "platform/Reactor.h"
#include "platform/Trace.h"

namespace FlowTracking {

namespace {
constexpr TaskPriority taskPriority = 2;
constexpr uint32_t defaultActiveInterval = 300000;  // ms
constexpr size_t changedMax = 100000;               // records, while full tables are on their way
constexpr uint32_t heldMax = 4 << 20;  // octets of changes that a rate limit holds back

using platform::toText;  // of keys of any type

/// Nested reactors: their keys.
template <auto Member>
constexpr AttrRow nestedRow(std::string_view name) {
  return {.name = name, .each = [](const Entity& e, const AttrRow::Visitor& visit) {
            for (const auto& [key, sm] : static_cast<const OptionsDataExporterSm&>(e).*Member)
              visit(toText(key), sm->entity(), {});
          }};
}
/// The message cache in parts: it may be long.
constexpr AttrRow msgCacheRow(std::string_view name) {
  AttrRow row{.name = name};
  row.from = [](const Entity& e, const std::string* key, bool behind,
                const AttrRow::PartVisitor& visit) {
    const auto& cache = static_cast<const OptionsDataExporterSm&>(e).msgCache();
    size_t i = 0;
    if (key && !platform::fromText(*key, i)) return false;
    for (i += behind && key ? 1 : 0; i < cache.size(); ++i)
      if (!visit(toText(i), nullptr, cache[i]->stringValue())) break;
    return true;
  };
  return row;
}
}  // namespace

// --- What the exporter hears ---

class OptionsDataExporterSm::HwExpConfigSm final
    : public NestedReactor<HwFlowTracking::ExporterConfig, OptionsDataExporterSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleIpfixMtu() override { sm_.msgCacheValidIs(false); }
  void handleSrcIpAddr() override { sm_.handleSrc4(); }
  void handleSrcIp6Addr() override { sm_.handleSrc6(); }
  void handleCollectorIpAndPort(const std::string& name) override { sm_.handleCollector4(name); }
  void handleCollectorIp6AndPort(const std::string& name) override { sm_.handleCollector6(name); }
};
class OptionsDataExporterSm::HwFtConfigSm final
    : public NestedReactor<HwFlowTracking::FtConfig, OptionsDataExporterSm> {
 public:
  using NestedReactor::NestedReactor;
  // What is due stays due: an interval that is set again and again must not put the tables off.
  void handleActiveInterval() override { sm_.maybeSchedulePeriodic(); }
};
class OptionsDataExporterSm::ExpInfoSm final
    : public NestedReactor<ExporterInfo, OptionsDataExporterSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleCollInfo(const std::string& name) override { sm_.handleCollInfo(name); }
  void handleUdpPam4() override { sm_.handleUdpPam_p(entity()->udpPam4(), sm_.collector4_); }
  void handleUdpPam6() override { sm_.handleUdpPam_p(entity()->udpPam6(), sm_.collector6_); }
};
class OptionsDataExporterSm::CollInfoSm final
    : public NestedReactor<CollectorInfo, OptionsDataExporterSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleOptTemplateSent() override {
    sm_.handleCollector4(entity()->name());
    sm_.handleCollector6(entity()->name());
  }
};
class OptionsDataExporterSm::UpdateSm final
    : public NestedReactor<OptionsDataUpdate, OptionsDataExporterSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleVersion() override { sm_.handleUpdateData(entity()->scope()); }
};
class OptionsDataExporterSm::SourceSm final
    : public NestedReactor<OptionsDataSource, OptionsDataExporterSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleVersion() override { sm_.msgCacheValidIs(false); }
};
class OptionsDataExporterSm::SourceCollSm final
    : public NestedReactor<OptionsDataSourceColl, OptionsDataExporterSm> {
 public:
  SourceCollSm(const Ptr<const OptionsDataSourceColl>& coll, OptionsDataExporterSm& sm)
      : NestedReactor(coll, sm) {
    for (const auto& [name, source] : coll->source())
      dataSourceEnt_.emplace(name, std::make_unique<SourceSm>(source, sm));
  }
  const NestedSms<std::string, SourceSm>& dataSourceEnt() const { return dataSourceEnt_; }
  void handleSource(const std::string&) override {
    assertionFailed("data source changed after init!", __FILE__, __LINE__);
  }

 private:
  NestedSms<std::string, SourceSm> dataSourceEnt_;
};

OptionsDataExporterSm::OptionsDataExporterSm(const std::string& expName, const std::string& ftName,
                                             FtId ftId,
                                             Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                             Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                                             Ptr<ExporterInfo> expInfo,
                                             Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                                             Ptr<const OptionsDataContainer> dataContainer,
                                             Ptr<TaskScheduler> scheduler)
    : expName_(expName),
      ftName_(ftName),
      ftId_(ftId),
      hwFtConfig_(std::move(hwFtConfig)),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      collStats_(std::move(collStats)),
      dataContainer_(std::move(dataContainer)),
      scheduler_(std::move(scheduler)),
      traceId_(expName + " for " + ftName) {
  handleInitialized();
}
OptionsDataExporterSm::~OptionsDataExporterSm() = default;

template <class... A>
void OptionsDataExporterSm::trace_p(std::string_view handler, const A&... what) const {
  traceOf(TraceLevel::detail, "OptionsDataExporterSm", handler, traceId_, what...);
}
std::unique_ptr<TimerTask> OptionsDataExporterSm::task_p(const char* prefix,
                                                         void (OptionsDataExporterSm::*body)()) {
  return reactorTask(scheduler_, prefix + expName_, taskPriority, *this, body);
}
void OptionsDataExporterSm::handleInitialized() {
  using Sm = OptionsDataExporterSm;
  collectorUpdateTask_ = task_p("optionsDataExporterCollectorUpdate-", &Sm::processCollectorQueue);
  continueTask_ = task_p("optionsDataExporterContinueTx-", &Sm::continueTransmissions);
  updateTask_ = task_p("optionsDataExporterUpdate-", &Sm::flushUpdateQueue);
  txPeriodicTask_ = task_p("optionsDataExporterPeriodicTx-", &Sm::maybeBeginPeriodicTransmission);

  hwExpConfigSm_ = std::make_unique<HwExpConfigSm>(hwExpConfig_, *this);
  if (hwFtConfig_) hwFtConfigSm_ = std::make_unique<HwFtConfigSm>(hwFtConfig_, *this);
  expInfoSm_ = std::make_unique<ExpInfoSm>(expInfo_, *this);
  for (const auto& [scope, coll] : dataContainer_->data())
    scopedDataSource_.emplace(scope, std::make_unique<SourceCollSm>(coll, *this));
  for (const auto& [scope, slot] : dataContainer_->update())
    updateDataEnt_.emplace(scope, std::make_unique<UpdateSm>(slot, *this));
  for (const auto& [name, info] : expInfo_->collInfo()) handleCollInfo(name);

  msgCacheValidIs(false);
  initializedIs(true);
  maybeBeginPeriodicTransmission();
}
void OptionsDataExporterSm::handleRetired() {
  for (const auto* task : {&continueTask_, &updateTask_, &collectorUpdateTask_, &txPeriodicTask_})
    (*task)->stop();
  collector_.clear();
  dropAll(collector4_);
  dropAll(collector6_);
}

// --- Readiness and the period ---

bool OptionsDataExporterSm::v4Ready() const {
  return expInfo_->udpPam4() && !hwExpConfig_->srcIpAddr().isZero() && !collector4_.empty();
}
bool OptionsDataExporterSm::v6Ready() const {
  return expInfo_->udpPam6() && !hwExpConfig_->srcIp6Addr().isZero() && !collector6_.empty();
}
uint32_t OptionsDataExporterSm::activeInterval() const {
  return hwFtConfig_ ? hwFtConfig_->activeInterval() : defaultActiveInterval;
}
uint16_t OptionsDataExporterSm::maxMsgSize_p() const {
  return static_cast<uint16_t>(hwExpConfig_->ipfixMtu() - ::Ipfix::IpfixConst::ipUdpHeaderLen());
}

void OptionsDataExporterSm::maybeSchedulePeriodic() {
  if (!v4Ready() && !v6Ready()) {
    trace_p("maybeSchedulePeriodic", "unschedule periodic transmission");
    txPeriodicTask_->stop();
    return;
  }
  if (processing()) return;  // its end schedules the next
  const double seconds = activeInterval() / 1000.0;
  trace_p("maybeSchedulePeriodic", "schedule periodic transmission ", seconds);
  txPeriodicTask_->scheduleLowestIs(Seconds(seconds));
}
void OptionsDataExporterSm::handleSrc4() {
  traceOf(TraceLevel::event, "OptionsDataExporterSm", "handleSrc4", traceId_,
          hwExpConfig_->srcIpAddr().stringValue(), ", ready: ", v4Ready());
  maybeSchedulePeriodic();
}
void OptionsDataExporterSm::handleSrc6() {
  traceOf(TraceLevel::event, "OptionsDataExporterSm", "handleSrc6", traceId_,
          hwExpConfig_->srcIp6Addr().stringValue(), ", ready: ", v6Ready());
  maybeSchedulePeriodic();
}
// A new endpoint is a new transport session: its collectors get their templates again, and after
// them the tables.
void OptionsDataExporterSm::handleUdpPam_p(const Ptr<UdpPam>& pam, const Collectors& family) {
  if (pam)
    for (const auto& [name, collector] : family) handleCollector(name);
  maybeSchedulePeriodic();
}

// --- Collectors ---

void OptionsDataExporterSm::handleCollInfo(const std::string& name) {
  if (auto info = expInfo_->collInfo(name)) {
    collInfo_[name] = std::make_unique<CollInfoSm>(std::move(info), *this);
  } else {
    collInfo_.erase(name);
  }
  handleCollector4(name);
  handleCollector6(name);
}
void OptionsDataExporterSm::handleCollector4(const std::string& name) {
  handleCollector_p<V4>(collector4_, collector6_, name);
}
void OptionsDataExporterSm::handleCollector6(const std::string& name) {
  handleCollector_p<V6>(collector6_, collector4_, name);
}
template <class Family>
void OptionsDataExporterSm::handleCollector_p(Collectors& own, Collectors& other,
                                              const std::string& collectorName) {
  const std::string name = collectorName;  // it may be the key of what is removed here
  const auto info = expInfo_->collInfo(name);
  const auto& configured = Family::collectors(*hwExpConfig_);
  const auto dst = configured.find(name);
  const auto had = find(own, name);
  if (dst == configured.end() || !info) {
    if (!had) return;
    collectorDel_p(own, other, name);
    maybeSchedulePeriodic();
    return;
  }
  IpAndPort dst4;
  Ip6AndPort dst6;
  if constexpr (Family::ipv6) {
    dst6 = dst->second;
  } else {
    dst4 = dst->second;
  }
  if (had) {
    if (had->dst4() == dst4 && had->dst6() == dst6 && had->collInfo() == info &&
        info->optTemplateSent())
      return;
    traceOf(TraceLevel::event, "OptionsDataExporterSm",
            Family::ipv6 ? "handleCollector6" : "handleCollector4", traceId_, "stale v",
            Family::digit, " collector ", name, " ",
            Family::ipv6 ? had->dst6().stringValue() : had->dst4().stringValue());
    collectorDel_p(own, other, name);
  }
  if (!info->optTemplateSent()) return;
  own[name] = collector_[name] = make<Collector>(name, info, dst4, dst6, this, !Family::ipv6);
  handleCollector(name);
}
void OptionsDataExporterSm::collectorDel_p(Collectors& own, Collectors& other,
                                           const std::string& name) {
  // While it moves between the families it is in both: then the name stands for the other one.
  if (const auto stays = find(other, name)) {
    collector_[name] = stays;
  } else {
    collector_.erase(name);
  }
  drop(own, name);
}
void OptionsDataExporterSm::handleCollector(const std::string& name) {
  collectorUpdate_.insert(name);
  collectorUpdateTask_->scheduleIs(Seconds(0));
}
void OptionsDataExporterSm::processCollectorQueue() {
  if (!initialized()) return;
  for (const auto& name : std::exchange(collectorUpdate_, {})) {
    trace_p("processCollectorQueue", name, ", exists: ", collector_.contains(name));
    for (const auto* family : {&collector4_, &collector6_}) {
      const auto c = find(*family, name);
      if (!c || !c->reachable(*expInfo_, *hwExpConfig_)) continue;
      maybeBuildMsgCache();
      transmission_.begin(c, msgCache_, false);
    }
  }
  maybeSchedulePeriodic();
  continueTransmissions();
}

// --- Full tables ---

void OptionsDataExporterSm::maybeBeginPeriodicTransmission() {
  static constexpr const char* handler = "maybeBeginPeriodicTransmission";
  if (!initialized()) return;
  if (processing()) {
    trace_p(handler, "processing, do not start new periodic transmission");
    return;
  }
  if (!v4Ready() && !v6Ready()) {
    trace_p(handler, "tx not ready, do not start new periodic transmission");
    return;
  }
  trace_p(handler, "starting new periodic transmission");
  maybeBuildMsgCache();
  abortUpdates();
  tablesAgain_ = false;
  processingIs(true);
  sendDataTables();
}
void OptionsDataExporterSm::resend() {
  if (processing()) {
    tablesAgain_ = true;  // some collectors have had the beginning already
  } else {
    txPeriodicTask_->scheduleIs(Seconds(0));
  }
}
void OptionsDataExporterSm::sendDataTables() {
  for (const auto* family : {&collector4_, &collector6_})
    for (const auto& [name, c] : *family) {
      if (!c->reachable(*expInfo_, *hwExpConfig_)) continue;
      transmission_.begin(c, msgCache_, true);
      collectorUpdate_.erase(name);  // this is its resend
    }
  continueTransmissions();
}
void OptionsDataExporterSm::continueTransmissions() {
  const auto again = transmission_.handOver(*expInfo_, *hwExpConfig_);
  if (retired()) return;
  if (processing() && !transmission_.periodic()) {
    processingIs(false);
    maybeSchedulePeriodic();
  }
  if (again) {
    continueTask_->scheduleIs(*again);
  } else {
    endTransmissions_p();
  }
}
void OptionsDataExporterSm::endTransmissions_p() {
  if (!changedMeanwhile_.empty()) {
    UpdateQueue waiting = std::exchange(update_, {});  // what is newer stays behind
    for (auto& [setId, record] : std::exchange(changedMeanwhile_, {}))
      update_.enq(setId, std::move(record));
    while (!waiting.empty()) {
      auto [setId, record] = waiting.deq();
      update_.enq(setId, std::move(record));
    }
    updateTask_->scheduleLowestIs(updateDataCoalesceTime_);
  }
  if (std::exchange(tablesAgain_, false)) txPeriodicTask_->scheduleIs(Seconds(0));
}
/// Also while tables are on their way: each transmission keeps those that it began with.
void OptionsDataExporterSm::maybeBuildMsgCache() {
  static constexpr const char* handler = "maybeBuildMsgCache";
  TARN_ASSERT_AS(initialized(), "initialized()");
  trace_p(handler, "msgCacheValid: ", msgCacheValid_, ", entries: ", msgCacheSize());
  if (msgCacheValid_) return;
  msgCacheBuildCountInc(1);
  msgCache_ = builtTables(*dataContainer_, maxMsgSize_p(), ftId_);
  uint64_t total = 0;
  for (const auto& [scope, coll] : dataContainer_->data())
    for (const auto& [name, source] : coll->source()) {
      trace_p(handler, "added ", source->dataRecords(), " records from ", scope, "::", name,
              ", setId: ", source->dataSetId());
      total += source->dataRecords();
    }
  trace_p(handler, "added ", total, " records");
  msgCacheValidIs(true);
}

// --- Updates ---

void OptionsDataExporterSm::abortUpdates() {
  updateTask_->stop();
  update_ = {};
  changedMeanwhile_.clear();
}
void OptionsDataExporterSm::handleUpdateData(OptionsDataScope scope) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  const auto& slot = dataContainer_->update().at(scope);
  update_.enq(slot->setId(), slot->record());
  const uint32_t maxMsgSize = maxMsgSize_p();
  const uint32_t hdrLen = MessageBuilder::calcOverhead(static_cast<unsigned>(update().size()));
  const bool full = hdrLen + updateQueueBytes() >= maxMsgSize;
  trace_p("handleUpdateData",
          full ? "schedule immediate, updateQueueBytes: " : "coalescing, updateQueueBytes: ",
          updateQueueBytes(), ", hdrLen: ", hdrLen, ", IPFIX max msg size: ", maxMsgSize);
  updateTask_->scheduleLowestIs(full ? Seconds(0) : updateDataCoalesceTime_);
}
void OptionsDataExporterSm::sendMessageToCollectors(const Ptr<MessageWrapper>& msgWrap) {
  static thread_local std::vector<Ptr<Collector>> spare;  // its room: a change goes to few
  std::vector<Ptr<Collector>> to = std::exchange(spare, {});
  to.reserve(collector4_.size() + collector6_.size());
  for (const auto* family : {&collector4_, &collector6_})
    for (const auto& [name, collector] : *family) to.push_back(collector);
  for (const auto& collector : to)
    if (collector->reachable(*expInfo_, *hwExpConfig_))
      collector->sendMessage(*expInfo_, *hwExpConfig_, msgWrap);
  to.clear();
  spare = std::move(to);
}
/// Under a rate limit: how soon to look again, while as much waits in an endpoint as may.
std::optional<Seconds> OptionsDataExporterSm::updatesHeld_p() const {
  const Backlog backlog(*hwExpConfig_);
  if (!backlog.limited) return std::nullopt;
  const bool held = (v4Ready() && backlog.full(expInfo_->udpPam4())) ||
                    (v6Ready() && backlog.full(expInfo_->udpPam6()));
  return held ? std::optional(backlog.poll) : std::nullopt;
}
void OptionsDataExporterSm::flushUpdateQueue() {
  if (!v4Ready() && !v6Ready()) {  // whoever becomes ready gets the full tables
    abortUpdates();
    return;
  }
  BuilderWrapper builder(maxMsgSize_p(), ftId_);
  builder.startMsg();
  std::optional<Seconds> later = updatesHeld_p();
  while (!update_.empty() && !later) {
    const auto [setId, record] = update_.deq();  // before sending, which others hear of
    if (!transmission_.empty() && !tablesAgain_) {
      changedMeanwhile_.push_back({setId, record});
      if (changedMeanwhile_.size() > changedMax) {
        changedMeanwhile_ = {};
        tablesAgain_ = true;
      }
    }
    while (builder.addSetRecord(setId, *record) == 0) {
      TARN_ASSERT_AS(builder.recordCount() > 0, "consumed > 0");
      sendMessageToCollectors(builder.finalizeMsg());
      if (retired()) return;
      later = updatesHeld_p();
      builder.startMsg();
    }
    if (!later && !update_.empty() && updateTask_->shouldYield()) later = Seconds(0);
  }
  if (builder.recordCount() > 0) sendMessageToCollectors(builder.finalizeMsg());
  if (retired() || update_.empty()) return;
  if (updateQueueBytes() > heldMax && updatesHeld_p()) {  // the tables say the same in less
    abortUpdates();
    resend();
  } else {
    updateTask_->scheduleIs(later.value_or(Seconds(0)));
  }
}

AttrRows OptionsDataExporterSm::attrRows() const {
  using E = OptionsDataExporterSm;
  static constexpr AttrRow rows[] = {
      row<&E::expName>("expName"),
      row<&E::ftName>("ftName"),
      row<&E::ftId>("ftId"),
      childRow<&E::hwFtConfig>("hwFtConfig"),
      childRow<&E::hwExpConfig>("hwExpConfig"),
      childRow<&E::expInfo>("expInfo"),
      childRow<&E::collStats>("collStats"),
      childRow<&E::dataContainer>("dataContainer"),
      childRow<&E::scheduler>("scheduler"),
      mapRow<&E::collector4_>("collector4"),
      mapRow<&E::collector6_>("collector6"),
      mapRow<&E::collector_>("collector"),
      nestedRow<&E::collInfo_>("collInfo"),
      setRow<&E::collectorUpdate_>("collectorUpdate"),
      nestedRow<&E::updateDataEnt_>("updateDataEnt"),
      nestedRow<&E::scopedDataSource_>("scopedDataSource"),
      mapRow<&E::updates_p>("update"),
      row<&E::updateQueueBytes>("updateQueueBytes"),
      row<&E::updateDataCoalesceTime, &E::updateDataCoalesceTimeIs>("updateDataCoalesceTime"),
      msgCacheRow("msgCache"),
      row<&E::msgCacheSize>("msgCacheSize"),
      row<&E::msgCacheValid>("msgCacheValid"),
      row<&E::msgCacheBuildCount>("msgCacheBuildCount"),
      row<&E::processing>("processing"),
      row<&E::transmissions>("transmissions"),
      row<&E::initialized>("initialized"),
      row<&E::v4Ready>("v4Ready"),
      row<&E::v6Ready>("v6Ready"),
      row<&E::activeInterval>("activeInterval"),
      actionRow<&E::resend>("resend"),
  };
  return rows;
}

Ptr<Collector> collectorFactory(const std::string& name, Ptr<CollectorInfo> collInfo,
                                const IpAndPort& dst4, const Ip6AndPort& dst6,
                                OptionsDataExporterSm* exporterSm) {
  return make<Collector>(name, std::move(collInfo), dst4, dst6, exporterSm);
}
Ptr<OptionsDataExporterSm> optionsDataExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<const OptionsDataContainer> dataContainer,
    Ptr<TaskScheduler> scheduler) {
  return make<OptionsDataExporterSm>(
      expName, ftName, ftId, std::move(hwFtConfig), std::move(hwExpConfig), std::move(expInfo),
      std::move(collStats), std::move(dataContainer), std::move(scheduler));
}

}  // namespace FlowTracking
