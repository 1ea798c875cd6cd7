#include "Ipfix/OptionsDataExporterSm.h"

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "platform/BlockPool.h"
#include "platform/Platform.h"
#include "platform/Trace.h"

namespace FlowTracking {

using Tarn::Ipfix::CollectorStatisticsEntry;
using Tarn::Ipfix::CollectorStatisticsKey;

namespace {
constexpr TaskPriority taskPriority = 2;
constexpr uint32_t defaultActiveInterval = 300000;  // ms
// How full tables are handed to the endpoints: messages per collector and turn, what may wait in an
// endpoint before it has to send some, how soon to look again, and what one run of the task hands
// over where nothing waits.
constexpr size_t turn = 128;
constexpr uint64_t backlogMax = 256;
constexpr Seconds backlogPoll{0.001};
constexpr size_t handedOverMax = 4096;
constexpr size_t changedMax = 100000;  // while full tables are on their way

thread_local constinit SlabPool<sizeof(MessageWrapper)> wrapperPool;

std::string destination(const Collector& c) {
  return c.isIpv4() ? c.dst4().stringValue() : c.dst6().stringValue();
}
}  // namespace

// --- MessageWrapper, BuilderWrapper ---

void* MessageWrapper::operator new(size_t) { return wrapperPool.take(); }
void MessageWrapper::operator delete(void* p, size_t) { wrapperPool.give(p); }

BuilderWrapper::BuilderWrapper(uint16_t maxSize, uint32_t observationDomainId)
    : builder_(messageBuilderFactory(maxSize, observationDomainId)) {}
void BuilderWrapper::startMsg() {
  msgWrap_ = Ptr<MessageWrapper>::adopt(new MessageWrapper);
  lastSet_ = nullptr;
  builder_->startMsg();
}
Ptr<MessageWrapper> BuilderWrapper::finalizeMsg() {
  msgWrap_->message = builder_->finalizeMsg();
  return msgWrap_;
}

// --- Collector ---

void Collector::sendMessage(const ExporterInfo& expInfo,
                            const HwFlowTracking::ExporterConfig& hwExpConfig,
                            const Ptr<MessageWrapper>& msgWrap) {
  updateStats(transmit(expInfo, hwExpConfig, std::span(&msgWrap, 1)));
}
SentMessages Collector::transmit(const ExporterInfo& expInfo,
                                 const HwFlowTracking::ExporterConfig& hwExpConfig,
                                 std::span<const Ptr<MessageWrapper>> messages) {
  const DscpValue dscp = hwExpConfig.dscp();
  const Ptr<UdpPam> _pam = isIpv4() ? expInfo.udpPam4() : expInfo.udpPam6();
  TARN_ASSERT(_pam);
  const IpAddr src4 = hwExpConfig.srcIpAddr();
  const Ip6Addr src6 = hwExpConfig.srcIp6Addr();
  if (isIpv4()) {
    TARN_ASSERT_AS(src4 != IpAddr::ipAddrZero(), "src != IpAddr::ipAddrZero()");
  } else {
    TARN_ASSERT_AS(!src6.isZero(), "!src.isZero()");
  }
  const uint32_t now = Platform::current().clock().nowU32();
  const bool traced = traceSink().enabled(TraceLevel::packet);
  SentMessages sent;
  for (const Ptr<MessageWrapper>& m : messages) {
    const uint32_t seq = collInfo_->ipfixMsgSeqNo().value();
    collInfo_->ipfixMsgSeqNoInc(m->message->recordCount());
    const Ptr<Pkt>& packet = m->message->pkt(seq, now);
    if (traced)
      trace(TraceLevel::packet, "Collector::", name_, isIpv4() ? " TX IPv4" : " TX IPv6",
            HexDump{packet->octets()});
    if (isIpv4()) {
      sendPkt4(packet, _pam, src4, dst4_, dscp);
    } else {
      sendPkt6(packet, _pam, src6, dst6_, dscp);
    }
    sent.add(*m);
  }
  return sent;
}
void Collector::updateStats(const SentMessages& sent) {
  if (!active()) return;  // who heard of the sending took it away, and its entry
  const auto collector = isIpv4() ? Tarn::Ipfix::CollectorInfo::fromIpAndPort(dst4_)
                                  : Tarn::Ipfix::CollectorInfo::fromIp6AndPort(dst6_);
  const CollectorStatisticsKey key(exporterSm_->ftName(), exporterSm_->expName(), collector);
  const auto& collStats = exporterSm_->collStats();
  auto known = collStats->stats(key);
  if (!known) known.emplace(key);
  CollectorStatisticsEntry& entry = *known;
  entry.exportedMessageTotalCountInc(sent.messages);
  entry.exportedFlowRecordTotalCountInc(sent.records);
  entry.exportedOctetTotalCountInc(sent.octets);
  sent.sets.each([&](const SetRecord& record) {
    entry.setEntryInc(Tarn::Ipfix::SetId(record.setId), record.count, 0);
  });
  const double now = Platform::current().clock().now();
  entry.lastSentTimeIs(now);
  entry.lastOptionsDataSentTimeIs(now);
  collStats->statsIs(entry);
}

// --- What the exporter hears ---

class OptionsDataExporterSm::HwExpConfigSm final : public HwFlowTracking::ExporterConfig::Watcher {
 public:
  explicit HwExpConfigSm(OptionsDataExporterSm& sm) : Watcher(sm.hwExpConfig_), sm_(sm) {}
  void handleIpfixMtu() override { sm_.msgCacheValid_ = false; }
  void handleSrcIpAddr() override { sm_.handleSrc4(); }
  void handleSrcIp6Addr() override { sm_.handleSrc6(); }
  void handleCollectorIpAndPort(const std::string& name) override { sm_.handleCollector4(name); }
  void handleCollectorIp6AndPort(const std::string& name) override { sm_.handleCollector6(name); }

 private:
  OptionsDataExporterSm& sm_;
};
class OptionsDataExporterSm::HwFtConfigSm final : public HwFlowTracking::FtConfig::Watcher {
 public:
  explicit HwFtConfigSm(OptionsDataExporterSm& sm) : Watcher(sm.hwFtConfig_), sm_(sm) {}
  void handleActiveInterval() override { sm_.handleActiveInterval(); }

 private:
  OptionsDataExporterSm& sm_;
};
class OptionsDataExporterSm::ExpInfoSm final : public ExporterInfo::Watcher {
 public:
  explicit ExpInfoSm(OptionsDataExporterSm& sm) : Watcher(sm.expInfo_), sm_(sm) {}
  void handleCollInfo(const std::string& name) override { sm_.handleCollInfo(name); }
  void handleUdpPam4() override { sm_.handleUdpPam4(); }
  void handleUdpPam6() override { sm_.handleUdpPam6(); }

 private:
  OptionsDataExporterSm& sm_;
};
class OptionsDataExporterSm::CollInfoSm final : public CollectorInfo::Watcher {
 public:
  CollInfoSm(OptionsDataExporterSm& sm, Ptr<const CollectorInfo> info)
      : Watcher(std::move(info)), sm_(sm) {}
  void handleOptTemplateSent() override {
    const std::string name = entity()->name();
    sm_.handleCollector4(name);
    sm_.handleCollector6(name);
  }

 private:
  OptionsDataExporterSm& sm_;
};
class OptionsDataExporterSm::UpdateSm final : public OptionsDataUpdate::Watcher {
 public:
  UpdateSm(OptionsDataExporterSm& sm, Ptr<const OptionsDataUpdate> slot)
      : Watcher(std::move(slot)), sm_(sm) {}
  void handleVersion() override { sm_.handleUpdateData(entity()->scope()); }

 private:
  OptionsDataExporterSm& sm_;
};
class OptionsDataExporterSm::SourceSm final : public OptionsDataSource::Watcher {
 public:
  SourceSm(OptionsDataExporterSm& sm, Ptr<const OptionsDataSource> source)
      : Watcher(std::move(source)), sm_(sm) {}
  void handleVersion() override { sm_.msgCacheValid_ = false; }

 private:
  OptionsDataExporterSm& sm_;
};
class OptionsDataExporterSm::SourceCollSm final : public OptionsDataSourceColl::Watcher {
 public:
  SourceCollSm(OptionsDataExporterSm& sm, const Ptr<const OptionsDataSourceColl>& coll)
      : Watcher(coll) {
    for (const auto& [name, source] : coll->source())
      dataSourceEnt_.emplace(name, std::make_unique<SourceSm>(sm, source));
  }
  void handleSource(const std::string&) override {
    assertionFailed("data source changed after init!", __FILE__, __LINE__);
  }

 private:
  std::map<std::string, std::unique_ptr<SourceSm>> dataSourceEnt_;
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
OptionsDataExporterSm::~OptionsDataExporterSm() {
  for (const auto* family : {&collector4_, &collector6_})
    for (const auto& [name, collector] : *family) collector->retire();
}

template <void (OptionsDataExporterSm::*body)()>
std::unique_ptr<TimerTask> OptionsDataExporterSm::task_p(const char* prefix) {
  return scheduler_->timerTask(prefix + expName_, taskPriority, [this] {
    const Ptr<OptionsDataExporterSm> hold(this);  // sending is told, who hears may delete us
    (this->*body)();
  });
}
void OptionsDataExporterSm::handleInitialized() {
  using Sm = OptionsDataExporterSm;
  collectorUpdateTask_ = task_p<&Sm::processCollectorQueue>("optionsDataExporterCollectorUpdate-");
  continueTask_ = task_p<&Sm::continueTransmissions>("optionsDataExporterContinueTx-");
  updateTask_ = task_p<&Sm::flushUpdateQueue>("optionsDataExporterUpdate-");
  txPeriodicTask_ = task_p<&Sm::maybeBeginPeriodicTransmission>("optionsDataExporterPeriodicTx-");

  hwExpConfigSm_ = std::make_unique<HwExpConfigSm>(*this);
  if (hwFtConfig_) hwFtConfigSm_ = std::make_unique<HwFtConfigSm>(*this);
  expInfoSm_ = std::make_unique<ExpInfoSm>(*this);
  for (const auto& [scope, coll] : dataContainer_->data())
    scopedDataSource_.emplace(scope, std::make_unique<SourceCollSm>(*this, coll));
  for (const auto& [scope, slot] : dataContainer_->update())
    updateDataEnt_.emplace(scope, std::make_unique<UpdateSm>(*this, slot));
  for (const auto& [name, info] : expInfo_->collInfo()) handleCollInfo(name);

  msgCacheValid_ = false;
  initialized_ = true;
  maybeBeginPeriodicTransmission();
}

// --- Readiness and the period ---

bool OptionsDataExporterSm::v4Ready() const {
  return expInfo_->udpPam4() && !hwExpConfig_->srcIpAddr().isZero() && !collector4_.empty();
}
bool OptionsDataExporterSm::v6Ready() const {
  return expInfo_->udpPam6() && !hwExpConfig_->srcIp6Addr().isZero() && !collector6_.empty();
}
bool OptionsDataExporterSm::familyReady_p(const Collector& collector) const {
  return collector.isIpv4() ? v4Ready() : v6Ready();
}
uint32_t OptionsDataExporterSm::activeInterval() const {
  return hwFtConfig_ ? hwFtConfig_->activeInterval() : defaultActiveInterval;
}
uint16_t OptionsDataExporterSm::maxMsgSize_p() const {
  return static_cast<uint16_t>(hwExpConfig_->ipfixMtu() - ::Ipfix::IpfixConst::ipUdpHeaderLen());
}

void OptionsDataExporterSm::maybeSchedulePeriodic() {
  if (!v4Ready() && !v6Ready()) {
    trace(TraceLevel::detail, "OptionsDataExporterSm::", traceId_,
          " unschedule periodic transmission");
    txPeriodicTask_->stop();
    return;
  }
  const double seconds = activeInterval() / 1000.0;
  trace(TraceLevel::detail, "OptionsDataExporterSm::", traceId_, " schedule periodic transmission ",
        seconds);
  txPeriodicTask_->scheduleLowestIs(Seconds(seconds));
}
void OptionsDataExporterSm::handleActiveInterval() {
  maybeSchedulePeriodic();  // what is due stays due; a longer interval counts from there
}
void OptionsDataExporterSm::handleSrc4() {
  trace(TraceLevel::event, "OptionsDataExporterSm::", "handleSrc4 ", traceId_, " ",
        hwExpConfig_->srcIpAddr().stringValue(), ", ready: ", v4Ready());
  maybeSchedulePeriodic();
}
void OptionsDataExporterSm::handleSrc6() {
  trace(TraceLevel::event, "OptionsDataExporterSm::", "handleSrc6 ", traceId_, " ",
        hwExpConfig_->srcIp6Addr().stringValue(), ", ready: ", v6Ready());
  maybeSchedulePeriodic();
}
// A new endpoint is a new transport session: its collectors get their templates again, and after
// them the tables.
void OptionsDataExporterSm::handleUdpPam4() {
  if (expInfo_->udpPam4()) resendAll_p(collector4_);
  maybeSchedulePeriodic();
}
void OptionsDataExporterSm::handleUdpPam6() {
  if (expInfo_->udpPam6()) resendAll_p(collector6_);
  maybeSchedulePeriodic();
}
void OptionsDataExporterSm::resendAll_p(const std::map<std::string, Ptr<Collector>>& family) {
  for (const auto& [name, collector] : family) handleCollector(name);
}

// --- Collectors ---

void OptionsDataExporterSm::handleCollInfo(const std::string& name) {
  if (auto info = expInfo_->collInfo(name)) {
    collInfo_[name] = std::make_unique<CollInfoSm>(*this, std::move(info));
  } else {
    collInfo_.erase(name);
  }
  handleCollector4(name);
  handleCollector6(name);
}
void OptionsDataExporterSm::handleCollector4(const std::string& name) {
  collectorIs_p(collector4_, hwExpConfig_->collectorIpAndPort(), name);
}
void OptionsDataExporterSm::handleCollector6(const std::string& name) {
  collectorIs_p(collector6_, hwExpConfig_->collectorIp6AndPort(), name);
}
template <class Dst>
void OptionsDataExporterSm::collectorIs_p(std::map<std::string, Ptr<Collector>>& family,
                                          const std::map<std::string, Dst>& configured,
                                          const std::string& collectorName) {
  const std::string name = collectorName;  // it may be the key of what goes away here
  const auto info = expInfo_->collInfo(name);
  const auto dst = configured.find(name);
  const auto had = family.find(name);
  if (dst == configured.end() || !info) {
    if (had == family.end()) return;
    collectorDel_p(family, name);
    maybeSchedulePeriodic();
    return;
  }
  IpAndPort dst4;
  Ip6AndPort dst6;
  if constexpr (std::is_same_v<Dst, IpAndPort>) {
    dst4 = dst->second;
  } else {
    dst6 = dst->second;
  }
  if (had != family.end()) {
    const Collector& c = *had->second;
    if (c.dst4() == dst4 && c.dst6() == dst6 && c.collInfo() == info && info->optTemplateSent())
      return;
    trace(TraceLevel::event, "OptionsDataExporterSm::", traceId_,
          c.isIpv4() ? " stale v4 collector " : " stale v6 collector ", name, " ", destination(c));
    collectorDel_p(family, name);
  }
  if (!info->optTemplateSent()) return;
  const auto c = Ptr<Collector>::adopt(
      new Collector(name, info, dst4, dst6, this, std::is_same_v<Dst, IpAndPort>));
  family[name] = c;
  collector_[name] = c;
  handleCollector(name);
}
void OptionsDataExporterSm::collectorDel_p(std::map<std::string, Ptr<Collector>>& family,
                                           const std::string& name) {
  const auto node = family.extract(name);
  if (node.empty()) return;
  node.mapped()->retire();
  // While it moves between the families it is in both: then the name stands for the other one.
  const auto other = find(&family == &collector4_ ? collector6_ : collector4_, node.key());
  if (other) {
    collector_[node.key()] = other;
  } else {
    collector_.erase(node.key());
  }
}
void OptionsDataExporterSm::handleCollector(const std::string& name) {
  collectorUpdate_.insert(name);
  collectorUpdateTask_->scheduleIs(Seconds(0));
}

void OptionsDataExporterSm::processCollectorQueue() {
  if (!initialized_) return;
  for (const auto& name : std::exchange(collectorUpdate_, {})) {
    trace(TraceLevel::detail, "OptionsDataExporterSm::", "processCollectorQueue ", traceId_, " ",
          name, ", exists: ", collector_.contains(name));
    for (const auto* family : {&collector4_, &collector6_}) {
      const auto collector = find(*family, name);
      if (!collector || !familyReady_p(*collector)) continue;
      maybeBuildMsgCache();
      beginTransmission_p(collector, false);
    }
  }
  continueTransmissions();
}

// --- Sending ---

/// Asked before each piece: counting is told, and those told may take collector or family away.
bool OptionsDataExporterSm::reachable_p(const Collector& collector) const {
  return collector.active() && familyReady_p(collector);
}
void OptionsDataExporterSm::sendMessageToCollectors(const Ptr<MessageWrapper>& msgWrap) {
  static thread_local std::vector<Ptr<Collector>> spare;  // its room: a change goes to few
  std::vector<Ptr<Collector>> to = std::exchange(spare, {});
  to.reserve(collector4_.size() + collector6_.size());
  for (const auto* family : {&collector4_, &collector6_})
    for (const auto& [name, collector] : *family) to.push_back(collector);
  for (const auto& collector : to)
    if (reachable_p(*collector)) collector->sendMessage(*expInfo_, *hwExpConfig_, msgWrap);
  to.clear();
  spare = std::move(to);
}

void OptionsDataExporterSm::maybeBeginPeriodicTransmission() {
  const auto say = [this](const char* what) {
    trace(TraceLevel::detail, "OptionsDataExporterSm::", traceId_, " ", what);
  };
  if (!initialized_) return;
  if (processing_) {
    say("processing, do not start new periodic transmission");
    return;
  }
  if (!v4Ready() && !v6Ready()) {
    say("tx not ready, do not start new periodic transmission");
    return;
  }
  say("starting new periodic transmission");
  maybeBuildMsgCache();
  abortUpdates();
  tablesAgain_ = false;
  processing_ = true;
  sendDataTables();
}
void OptionsDataExporterSm::resend() {
  if (processing_) {
    tablesAgain_ = true;  // some collectors have had the beginning already
  } else {
    txPeriodicTask_->scheduleIs(Seconds(0));
  }
}
void OptionsDataExporterSm::sendDataTables() {
  // Everybody who can be reached gets the tables now: nobody of them waits for a resend any more.
  std::erase_if(collectorUpdate_, [this](const std::string& name) {
    const auto collector = find(collector_, name);
    return !collector || familyReady_p(*collector);
  });
  if (collectorUpdate_.empty()) collectorUpdateTask_->stop();
  for (const auto* family : {&collector4_, &collector6_})
    for (const auto& [name, collector] : *family)
      if (familyReady_p(*collector)) beginTransmission_p(collector, true);
  continueTransmissions();
}

/// From the beginning, also for a collector that is in the middle of the tables.
void OptionsDataExporterSm::beginTransmission_p(const Ptr<Collector>& collector, bool periodic) {
  std::erase_if(transmission_, [&](const auto& t) { return t.collector == collector; });
  transmission_.push_back({collector, msgCache_, periodic});
}
bool OptionsDataExporterSm::backlogged_p() const {
  for (const auto& pam : {expInfo_->udpPam4(), expInfo_->udpPam6()})
    if (pam && pam->counters().queued >= backlogMax) return true;
  return false;
}
/// Each collector in turn gets a piece; what one gets are neighbours, which leave cheaper together.
void OptionsDataExporterSm::continueTransmissions() {
  for (size_t handedOver = 0; !transmission_.empty();) {
    for (Transmission& t : transmission_) {
      if (handedOver >= handedOverMax || backlogged_p()) {
        // What was handed over may leave when this task is over: then it goes on at once.
        continueTask_->scheduleIs(handedOver > 0 ? Seconds(0) : backlogPoll);
        return;
      }
      const std::span messages(t.tables->messages);
      if (!reachable_p(*t.collector)) {  // it gets all of it when it can be
        t.next = messages.size();
        continue;
      }
      const auto piece = messages.subspan(t.next, std::min(messages.size() - t.next, turn));
      const SentMessages sent = t.collector->transmit(*expInfo_, *hwExpConfig_, piece);
      t.next += sent.messages;
      handedOver += sent.messages;
      if (sent.messages > 0) t.collector->updateStats(sent);
    }
    std::erase_if(transmission_, [](const Transmission& t) {
      return t.next == t.tables->messages.size() || !t.collector->active();
    });
    if (processing_ && std::none_of(transmission_.begin(), transmission_.end(),
                                    [](const Transmission& t) { return t.periodic; })) {
      processing_ = false;
      maybeSchedulePeriodic();
    }
  }
  endTransmissions_p();
}
void OptionsDataExporterSm::endTransmissions_p() {
  processing_ = false;
  if (!changedMeanwhile_.empty()) {
    auto waiting = std::exchange(update_, {});  // what is newer stays behind
    for (auto& [setId, record] : std::exchange(changedMeanwhile_, {}))
      updateEnq_p(setId, std::move(record));
    while (auto* of = waiting.first()) {
      update_[of->setId].recordEnq(of->queue.head());
      of->queue.recordDel();
    }
    updateTask_->scheduleLowestIs(updateDataCoalesceTime_);
  }
  if (std::exchange(tablesAgain_, false)) txPeriodicTask_->scheduleIs(Seconds(0));
  maybeSchedulePeriodic();
}
void OptionsDataExporterSm::updateEnq_p(TemplateId setId, Ptr<const DataRecord> record) {
  updateQueueBytes_ += record->dataLen();
  update_[setId].recordEnq(std::move(record));
}

/// The tables as another exporter of the tracker built them, if they are as they are now.
std::shared_ptr<const BuiltTables> OptionsDataExporterSm::builtByOthers_p() const {
  const auto& all = dataContainer_->builtTables_p();
  const auto found = all.find(maxMsgSize_p());
  auto tables = found == all.end() ? nullptr : found->second.lock();
  if (!tables || tables->observationDomainId != ftId_) return nullptr;
  auto made = tables->of.begin();
  for (const auto& [scope, coll] : dataContainer_->data())
    for (const auto& [name, source] : coll->source()) {
      if (made == tables->of.end() || made->source != source || made->version != source->version())
        return nullptr;
      ++made;
    }
  return made == tables->of.end() ? tables : nullptr;
}
void OptionsDataExporterSm::maybeBuildMsgCache() {
  TARN_ASSERT_AS(initialized(), "initialized()");
  trace(TraceLevel::detail, "OptionsDataExporterSm::", traceId_, " msgCacheValid: ", msgCacheValid_,
        ", entries: ", msgCacheSize());
  if (msgCacheValid_) return;
  ++msgCacheBuildCount_;
  msgCacheValid_ = true;
  msgCache_ = builtByOthers_p();
  if (msgCache_) return;
  const auto tables = std::make_shared<BuiltTables>();
  tables->observationDomainId = ftId_;
  BuilderWrapper builder(maxMsgSize_p(), ftId_);
  builder.startMsg();
  uint64_t total = 0;
  for (const auto& [scope, coll] : dataContainer_->data()) {
    for (const auto& [name, source] : coll->source()) {
      tables->of.push_back({source, source->version()});
      const TemplateId setId = source->dataSetId();
      const auto places = source->places();
      for (auto it = places.begin();;) {
        it = builder.addSetRecords(setId, it, places.end());
        if (it == places.end()) break;
        // An empty message holds every record that there may be.
        TARN_ASSERT_AS(builder.recordCount() > 0 && (*it)->dataLen() > 0, "consumed > 0");
        tables->messages.push_back(builder.finalizeMsg());
        builder.startMsg();
      }
      const uint64_t count = source->dataRecords();
      total += count;
      trace(TraceLevel::detail, "OptionsDataExporterSm::", traceId_, " added ", count,
            " records from ", scope, "::", name, ", setId: ", setId);
    }
  }
  if (builder.recordCount() > 0) tables->messages.push_back(builder.finalizeMsg());
  trace(TraceLevel::detail, "OptionsDataExporterSm::", traceId_, " added ", total, " records");
  msgCache_ = tables;
  dataContainer_->builtTables_p()[maxMsgSize_p()] = tables;
}

// --- Updates ---

void OptionsDataExporterSm::abortUpdates() {
  updateTask_->stop();
  update_.clear();
  changedMeanwhile_.clear();
  updateQueueBytes_ = 0;
}
void OptionsDataExporterSm::handleUpdateData(OptionsDataScope scope) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  const auto& slot = dataContainer_->update().at(scope);
  updateEnq_p(slot->setId(), slot->record());
  const uint32_t maxMsgSize = maxMsgSize_p();
  const uint32_t hdrLen = MessageBuilder::calcOverhead(static_cast<unsigned>(update_.size()));
  const bool full = hdrLen + updateQueueBytes_ >= maxMsgSize;
  trace(TraceLevel::detail, "OptionsDataExporterSm::", traceId_,
        full ? " schedule immediate, updateQueueBytes: " : " coalescing, updateQueueBytes: ",
        updateQueueBytes_, ", hdrLen: ", hdrLen, ", IPFIX max msg size: ", maxMsgSize);
  updateTask_->scheduleLowestIs(full ? Seconds(0) : updateDataCoalesceTime_);
}
void OptionsDataExporterSm::flushUpdateQueue() {
  if (!v4Ready() && !v6Ready()) {  // whoever becomes ready gets the full tables
    abortUpdates();
    return;
  }
  BuilderWrapper builder(maxMsgSize_p(), ftId_);
  builder.startMsg();
  bool yield = false;
  for (auto* of = update_.first(); of && !yield; of = update_.first()) {
    const TemplateId setId = of->setId;
    const Ptr<const DataRecord> record = of->queue.head();
    of->queue.recordDel();  // before sending, which others hear of
    if (!transmission_.empty() && !tablesAgain_) {
      changedMeanwhile_.emplace_back(setId, record);
      if (changedMeanwhile_.size() > changedMax) {
        changedMeanwhile_ = {};
        tablesAgain_ = true;
      }
    }
    updateQueueBytes_ -= record->dataLen();

    uint32_t consumed = builder.addSetRecord(setId, *record);
    if (consumed == 0 && builder.recordCount() > 0) {
      sendMessageToCollectors(builder.finalizeMsg());
      builder.startMsg();
      consumed = builder.addSetRecord(setId, *record);
    }
    TARN_ASSERT(consumed > 0);
    yield = !update_.empty() && updateTask_->shouldYield();
  }
  if (builder.recordCount() > 0) sendMessageToCollectors(builder.finalizeMsg());
  if (!update_.empty()) updateTask_->scheduleIs(Seconds(0));
}

AttrRows OptionsDataExporterSm::attrRows() const {
  using E = OptionsDataExporterSm;
  static constexpr AttrRow rows[] = {
      row<&E::expName>("expName"),
      row<&E::ftName>("ftName"),
      row<&E::ftId>("ftId"),
      row<&E::v4Ready>("v4Ready"),
      row<&E::v6Ready>("v6Ready"),
      row<&E::activeInterval>("activeInterval"),
      row<&E::updateQueueBytes>("updateQueueBytes"),
      row<&E::updateDataCoalesceTime, &E::updateDataCoalesceTimeIs>("updateDataCoalesceTime"),
      row<&E::msgCacheSize>("msgCacheSize"),
      row<&E::msgCacheValid>("msgCacheValid"),
      row<&E::msgCacheBuildCount>("msgCacheBuildCount"),
      row<&E::processing>("processing"),
      row<&E::initialized>("initialized"),
      actionRow<&E::resend>("resend"),
  };
  return rows;
}
Ptr<OptionsDataExporterSm> OptionsDataExporterSm::OptionsDataExporterSmIs(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<const OptionsDataContainer> dataContainer,
    Ptr<TaskScheduler> scheduler) {
  return Ptr<OptionsDataExporterSm>::adopt(new OptionsDataExporterSm(
      expName, ftName, ftId, std::move(hwFtConfig), std::move(hwExpConfig), std::move(expInfo),
      std::move(collStats), std::move(dataContainer), std::move(scheduler)));
}
Ptr<OptionsDataExporterSm> optionsDataExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<const OptionsDataContainer> dataContainer,
    Ptr<TaskScheduler> scheduler) {
  return OptionsDataExporterSm::OptionsDataExporterSmIs(
      expName, ftName, ftId, std::move(hwFtConfig), std::move(hwExpConfig), std::move(expInfo),
      std::move(collStats), std::move(dataContainer), std::move(scheduler));
}

}  // namespace FlowTracking
