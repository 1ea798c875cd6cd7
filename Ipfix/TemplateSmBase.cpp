#include "Ipfix/TemplateSmBase.h"

#include <algorithm>
#include <numeric>

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Ipfix/MessageBuilder.h"
#include "platform/Platform.h"
#include "platform/Trace.h"

namespace FlowTracking {

using HwFlowTracking::FtTemplateEntry;
using ::Ipfix::IpfixConst;
using Tarn::Ipfix::CollectorStatisticsEntry;

namespace {
constexpr TaskPriority taskPriority = 2;
constexpr uint32_t headersLen = IpfixConst::messageHeaderLen() + IpfixConst::setHeaderLen();
constexpr uint32_t recordsLenMax = IpfixConst::maxUdpPayload() - headersLen;

/// Octets of a record's header: template id, field count, and for options the scope field count.
constexpr uint32_t recordHeaderLen(bool options) { return options ? 6 : 4; }
class OptionsTemplateHeader : public TemplateHeader {
 public:
  using TemplateHeader::TemplateHeader;
  void scopeFieldCountIs(uint16_t v) { u16Is(4, v); }
};
}  // namespace

class TemplateExporterSmBase::HwExpConfigSm final
    : public NestedReactor<HwFlowTracking::ExporterConfig, TemplateExporterSmBase> {
 public:
  using NestedReactor::NestedReactor;
  void handleTemplateInterval() override { sm_.handleTemplateInterval(); }
  void handleCollectorIpAndPort(const std::string& name) override {
    sm_.handleCollector_p(sm_.family4_, name);
  }
  void handleCollectorIp6AndPort(const std::string& name) override {
    sm_.handleCollector_p(sm_.family6_, name);
  }
  void handleExporter4Ready() override { sm_.maybeTx_p(sm_.family4_, Pass::lacking); }
  void handleSrcIpAddr() override { sm_.maybeTx_p(sm_.family4_, Pass::lacking); }
  void handleExporter6Ready() override { sm_.maybeTx_p(sm_.family6_, Pass::lacking); }
  void handleSrcIp6Addr() override { sm_.maybeTx_p(sm_.family6_, Pass::lacking); }
};

class TemplateExporterSmBase::ExpInfoSm final
    : public NestedReactor<ExporterInfo, TemplateExporterSmBase> {
 public:
  using NestedReactor::NestedReactor;
  void handleUdpPam4() override { sm_.maybeTx_p(sm_.family4_, Pass::lacking); }
  void handleUdpPam6() override { sm_.maybeTx_p(sm_.family6_, Pass::lacking); }
  void handleCollInfo(const std::string& name) override {
    sm_.handleCollector_p(sm_.family4_, name);
    sm_.handleCollector_p(sm_.family6_, name);
  }
};

TemplateExporterSmBase::TemplateExporterSmBase(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler)
    : expName_(expName),
      ftName_(ftName),
      ftId_(ftId),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      collStats_(std::move(collStats)),
      taskScheduler_(std::move(taskScheduler)),
      traceId_(ftName + " for " + expName),
      hwExpConfigSm_(std::make_unique<HwExpConfigSm>(hwExpConfig_, *this)),
      expInfoSm_(std::make_unique<ExpInfoSm>(expInfo_, *this)) {}
TemplateExporterSmBase::~TemplateExporterSmBase() = default;

std::string TemplateExporterSmBase::taskPrefix() const {
  assertionFailed("(!(\"taskPrefix\"))", __FILE__, __LINE__);
}
uint16_t TemplateExporterSmBase::headerSetId() const {
  assertionFailed("(!(\"headerSetId\"))", __FILE__, __LINE__);
}

template <class... A>
void TemplateExporterSmBase::say_p(int level, const char* handler, const A&... what) const {
  traceOf(level, "TemplateExporterSmBase", handler, traceId_, what...);
}

void TemplateExporterSmBase::handleStartup() {
  templateReady_ = false;
  templateTxCountIs(0);
  periodicTemplateTxTaskIs(taskScheduler_, taskPriority, taskName_p("PeriodicTxTask"));
}
void TemplateExporterSmBase::startTemplateCreation_p() {
  templateCreationTask_ =
      reactorTask(taskScheduler_, taskName_p("TemplateCreationTask"), taskPriority, *this,
                  &TemplateExporterSmBase::handleTemplateCreationTask);
  initialized_ = true;
  scheduleTemplateCreation_p();
}
std::string TemplateExporterSmBase::taskName_p(const char* kind) const {
  return taskPrefix() + "-" + kind + "-" + ftName_ + "-" + expName_;
}
void TemplateExporterSmBase::periodicTemplateTxTaskIs(const Ptr<TaskScheduler>& scheduler,
                                                      TaskPriority priority,
                                                      const std::string& name) {
  periodicTemplateTxTask_ = reactorTask(scheduler, name, priority, *this,
                                        &TemplateExporterSmBase::handlePeriodicTemplateTx);
}
void TemplateExporterSmBase::handleRetired() {
  stopPeriodicTemplateTx_p();
  if (templateCreationTask_) templateCreationTask_->stop();
  handleDel();
}

// --- The message ---

uint32_t TemplateExporterSmBase::TemplateRecord::len() const {
  uint32_t len = recordHeaderLen(scopeField);
  for (const FieldMap* fields : {scopeField, field}) {
    if (!fields) continue;
    for (const auto& [position, entry] : *fields) len += entry.specifierLen();
  }
  return len;
}

void TemplateExporterSmBase::handleTemplateCreationTask() {
  const auto say = [this](int level, const auto&... what) {
    traceOf(level, className_p(), "handleTemplateCreationTask", traceId_, what...);
  };
  if (!templateCreationTask_->running()) {
    say(TraceLevel::detail, "Returning because templateCreationTask not running.");
    return;
  }
  templateLenDelAll();
  const auto templates = templates_p();
  const uint32_t length =
      std::accumulate(templates.begin(), templates.end(), 0U,
                      [](uint32_t sum, const TemplateRecord& r) { return sum + r.len(); });
  templatePktIs(length > 0 && length <= recordsLenMax ? getPkt() : nullptr);
  templateReadyIs(false);
  if (length == 0) {
    say(TraceLevel::detail, noTemplates_p());
    return;
  }
  if (!templatePkt_) {
    say(TraceLevel::error, "Returning because the templates take ", length,
        " octets and a datagram has room for ", recordsLenMax);
    return;
  }
  templatePkt_->dataTailInc(length);
  uint32_t offset = 0;
  for (const TemplateRecord& record : templates) offset = addTemplate_p(offset, record);
  finishMessage();
}

uint32_t TemplateExporterSmBase::addTemplate_p(uint32_t offset, const TemplateRecord& record) {
  const auto count = [](const FieldMap* f) { return static_cast<uint16_t>(f ? f->size() : 0); };
  templateLenIs(record.templateId, record.len());
  templatePktTemplateCountInc(1);
  OptionsTemplateHeader header(templatePkt_, offset);
  header.templateIdIs(record.templateId);
  header.fieldCountIs(static_cast<uint16_t>(count(record.scopeField) + count(record.field)));
  if (record.scopeField) header.scopeFieldCountIs(count(record.scopeField));
  offset += recordHeaderLen(record.scopeField);
  for (const FieldMap* fields : {record.scopeField, record.field}) {
    if (!fields) continue;
    for (const auto& [position, entry] : *fields) {
      checkField_p(entry, fields == record.scopeField);
      offset = addTemplateFieldSpecifier(templatePkt_, offset, entry);
    }
  }
  return offset;
}

Ptr<Pkt> TemplateExporterSmBase::getPkt() const { return Platform::current().newPkt(); }

uint32_t TemplateExporterSmBase::addTemplateFieldSpecifier(const Ptr<Pkt>& pkt, uint32_t offset,
                                                           const FtTemplateEntry& entry) const {
  FieldSpecifier field(pkt, offset, entry.enterpriseIe());
  field.elementIdIs(static_cast<uint16_t>(entry.fieldId().value()));
  field.fieldLenIs(entry.fieldLen());
  if (entry.enterpriseIe()) field.entNumIs(IpfixConst::enterpriseNumber());
  return offset + field.len();
}

void TemplateExporterSmBase::addIpfixHeaders_p() {
  templatePkt_->dataHeadInc(headersLen);
  const uint32_t setLen =
      std::accumulate(templateLen_.begin(), templateLen_.end(), IpfixConst::setHeaderLen(),
                      [](uint32_t sum, const auto& entry) { return sum + entry.second; });
  templatePktMsgLenIs(static_cast<uint16_t>(setLen + IpfixConst::messageHeaderLen()));

  MessageHeader message(templatePkt_, 0);
  message.versionIs(IpfixConst::version());
  message.lengthIs(templatePktMsgLen_);
  message.exportTimeIs(Platform::current().clock().nowU32());
  message.seqNoIs(0);
  message.observationDomainIdIs(ftId_);
  SetHeader set(templatePkt_, IpfixConst::messageHeaderLen());
  set.setIdIs(headerSetId());
  set.lengthIs(static_cast<uint16_t>(setLen));

  ++messageBuild_;
  templateReadyIs(true);
  say_p(TraceLevel::packet, "addIpfixHeaders_p",
        "Template pkt->hexdump:", HexDump{templatePkt_->octets()});
}
void TemplateExporterSmBase::finishMessage() {
  addIpfixHeaders_p();
  maybeTxTemplate_p(Pass::lacking);  // the new message is what everybody lacks
}

void TemplateExporterSmBase::templateReadyIs(bool v) {
  if (templateReady_ == v) return;
  templateReady_ = v;
  handleTemplateReady();
}
void TemplateExporterSmBase::handleTemplateReady() {
  if (templateReady_) return;
  templatePktMsgLenIs(0);
  templatePktTemplateCountIs(0);
  family4_.sending = family6_.sending = false;
  stopPeriodicTemplateTx_p();
}

// --- Sending ---

template <class V>
bool TemplateExporterSmBase::txReady_p(const Family<V>&) const {
  return templateReady_ && V::ready(*hwExpConfig_) && !V::src(*hwExpConfig_).isZero() &&
         V::pam(*expInfo_);
}

void TemplateExporterSmBase::maybeTxTemplate_p(Pass pass) {
  maybeTx_p(family4_, pass);
  maybeTx_p(family6_, pass);
}

template <class V>
void TemplateExporterSmBase::maybeTx_p(Family<V>& family, Pass pass) {
  if (retired()) return;
  if (txReady_p(family)) {
    for (const auto& name : keysOf(V::collectors(*hwExpConfig_))) txTo_p(family, name, pass);
  } else {
    family.sent.clear();
  }
  settle_p(family);
}

/// Sends to one collector, if there is still all that takes: sending to the one before notified.
template <class V>
void TemplateExporterSmBase::txTo_p(Family<V>& family, const std::string& name, Pass pass) {
  if (retired() || !txReady_p(family) || !expInfo_->collInfo(name)) return;
  const auto collector = V::collectors(*hwExpConfig_).find(name);
  if (collector == V::collectors(*hwExpConfig_).end()) return;
  const auto dst = collector->second;
  if (pass == Pass::everybody || lacks_p(family, dst, name)) doTx_p(family, dst, name);
}

/// Ends a pass: whether the family is being sent to decides on the period.
template <class V>
void TemplateExporterSmBase::settle_p(Family<V>& family) {
  if (retired()) return;
  const auto& collectors = V::collectors(*hwExpConfig_);
  family.sending = txReady_p(family) &&
                   std::any_of(collectors.begin(), collectors.end(),
                               [this](const auto& c) { return bool{expInfo_->collInfo(c.first)}; });
  if (family.sending) {
    schedulePeriodicTemplateTx_p();
  } else if (!family4_.sending && !family6_.sending) {
    stopPeriodicTemplateTx_p();
  }
}

template <class V>
bool TemplateExporterSmBase::lacks_p(const Family<V>& family, const typename V::Dst& dst,
                                     const std::string& name) const {
  const auto last = family.sent.find(name);
  return last == family.sent.end() ||
         last->second !=
             typename Family<V>::Sent{messageBuild_, V::pam(*expInfo_), V::src(*hwExpConfig_), dst};
}

template <class V>
bool TemplateExporterSmBase::has_p(const Family<V>& family, const std::string& name) const {
  const auto& collectors = V::collectors(*hwExpConfig_);
  const auto collector = collectors.find(name);
  return collector != collectors.end() && expInfo_->collInfo(name) && txReady_p(family) &&
         !lacks_p(family, collector->second, name);
}

template <class V>
void TemplateExporterSmBase::doTx_p(Family<V>& family, const typename V::Dst& dst,
                                    const std::string& name) {
  updateMsgHeader_p(name);
  const auto src = V::src(*hwExpConfig_);
  const DscpValue dscp = hwExpConfig_->dscp();
  const Ptr<UdpPam> pam = V::pam(*expInfo_);
  // Remember what was sent before anybody is notified: a handler may come back here.
  family.is(name, dst);
  family.sent.insert_or_assign(name, typename Family<V>::Sent{messageBuild_, pam, src, dst});
  V::send(templatePkt_, pam, src, dst, dscp);
  say_p(TraceLevel::detail, V::ipv6 ? "doTxTemplate6_p" : "doTxTemplate4_p", "Template sent to",
        " ", name, ", dst ip:", dst.addr.stringValue(), ", dst port:", dst.port,
        ", src:", src.stringValue(), ", tos :", int{dscp.tos()});
  templateTxCountInc(1);
  updateStats(V::info(dst));
  if (!retired() && has_p(family, name)) updateCollectorOnTx(name);
  if (!retired() && V::pam(*expInfo_) == pam) V::rxPortIs(*expInfo_, pam->rxPort());
}

void TemplateExporterSmBase::updateMsgHeader_p(const std::string& collectorName) {
  const uint32_t exportTime = Platform::current().clock().nowU32();
  const auto seqNo = expInfo_->collInfo(collectorName)->ipfixMsgSeqNo();
  MessageHeader header(templatePkt_, 0);
  header.exportTimeIs(exportTime);
  header.seqNoIs(seqNo.value());  // templates are no data records: the number stays
  exportTimeU32Is(collectorName, exportTime);
  say_p(TraceLevel::detail, "updateMsgHeader_p", "Collector", " ", collectorName, " has seqNo ",
        seqNo);
}

// --- Collectors ---

template <class V>
void TemplateExporterSmBase::handleCollector_p(Family<V>& family, const std::string& name) {
  if (retired()) return;
  const auto& configured = V::collectors(*hwExpConfig_);
  const auto own = family.collector.find(name);
  const auto now = configured.find(name);
  const auto served =
      own == family.collector.end() ? std::nullopt : std::optional<typename V::Dst>(own->second);
  if (now != configured.end()) {
    family.is(name, now->second);
  } else if (served) {
    family.del(name);
    if (!family4_.collector.contains(name) && !family6_.collector.contains(name))
      exportTimeU32Del(name);
  } else {
    return;
  }
  if (!expInfo_->collInfo(name)) family.sent.erase(name);  // when it returns, it is a new session
  if (served && (now == configured.end() || now->second != *served)) statsDel_p(family, *served);
  // While nobody of the family is being sent to, other collectors may lack the message as well.
  if (family.sending && txReady_p(family)) {
    txTo_p(family, name, Pass::lacking);
    settle_p(family);
  } else {
    maybeTx_p(family, Pass::lacking);
  }
}

// --- Statistics ---

void TemplateExporterSmBase::updateStats(const Tarn::Ipfix::CollectorInfo& collector) {
  const auto key = statsKey_p(collector);
  auto entry = collStats_->stats(key).value_or(CollectorStatisticsEntry(key));
  const double now = Platform::current().clock().now();
  entry.exportedMessageTotalCountInc(1);
  entry.exportedOctetTotalCountInc(templatePktMsgLen_);
  entry.lastSentTimeIs(now);
  entry.lastTemplateSentTimeIs(now);
  entry.setEntryInc(Tarn::Ipfix::SetId(headerSetId()), 0, templatePktTemplateCount_);
  collStats_->statsIs(entry);
}

template <class V>
void TemplateExporterSmBase::statsDel_p(const Family<V>& family, const typename V::Dst& dst) {
  // Two collectors at one address share its entry.
  const bool shared = std::any_of(family.collector.begin(), family.collector.end(),
                                  [&](const auto& other) { return other.second == dst; });
  if (!shared) collStats_->statsDel(statsKey_p(V::info(dst)));
}
template <class V>
void TemplateExporterSmBase::statsDelAll_p(Family<V>& family) {
  for (const auto served = std::exchange(family.collector, {}); const auto& [name, dst] : served)
    collStats_->statsDel(statsKey_p(V::info(dst)));
}
void TemplateExporterSmBase::handleDel() {
  statsDelAll_p(family4_);
  statsDelAll_p(family6_);
}
template <class V>
void TemplateExporterSmBase::clearCounters_p(const Family<V>& family, double now) {
  for (const auto& name : keysOf(family.collector)) {
    const auto served = family.collector.find(name);
    if (retired() || served == family.collector.end()) continue;
    auto entry = collStats_->stats(statsKey_p(V::info(served->second)));
    if (!entry) continue;
    entry->clear(now);
    collStats_->statsIs(*entry);
  }
}
void TemplateExporterSmBase::clearCounters() {
  const double now = Platform::current().clock().now();
  clearCounters_p(family4_, now);
  clearCounters_p(family6_, now);
}

// --- The period ---

void TemplateExporterSmBase::handleTemplateInterval() {
  stopPeriodicTemplateTx_p();
  maybeTxTemplate_p(Pass::everybody);
}
void TemplateExporterSmBase::schedulePeriodicTemplateTx_p() {
  const auto say = [this](int level, const auto&... what) {
    say_p(level, "schedulePeriodicTemplateTx_p", what...);
  };
  if (periodicTemplateTxTask_->scheduled()) {
    say(TraceLevel::packet, "Periodic template Tx task already scheduled");
    return;
  }
  const uint32_t seconds = hwExpConfig_->templateInterval() / 1000;
  say(TraceLevel::detail, "Periodic template Tx task scheduled with interval: ", seconds,
      " seconds");
  periodicTemplateTxTask_->scheduleLowestIs(Seconds(seconds));
}
void TemplateExporterSmBase::handlePeriodicTemplateTx() {
  if (!periodicTemplateTxTask_->running()) {
    say_p(TraceLevel::detail, "handlePeriodicTemplateTx",
          "Returning because periodicTemplateTxTask not running.");
    return;
  }
  maybeTxTemplate_p(Pass::everybody);
}
void TemplateExporterSmBase::resend() {
  if (periodicTemplateTxTask_ && periodicTemplateTxTask_->scheduled())
    periodicTemplateTxTask_->scheduleIs(Seconds(0));
}
void TemplateExporterSmBase::stopPeriodicTemplateTx_p() {
  if (periodicTemplateTxTask_) periodicTemplateTxTask_->stop();
}

// --- Access by name ---

std::string TemplateExporterSmBase::state_p(const TimerTask* task) {
  if (!task) return {};
  return task->name() + (task->running() ? ", running" : task->scheduled() ? ", scheduled" : "");
}
std::vector<AttrRow> TemplateExporterSmBase::rowsWith_p(std::initializer_list<AttrRow> rows) {
  using B = TemplateExporterSmBase;
  std::vector<AttrRow> all{
      row<&B::expName_>("expName"),
      row<&B::ftName_>("ftName"),
      row<&B::ftId_>("ftId"),
      childRow<&B::hwExpConfig_>("hwExpConfig"),
      childRow<&B::expInfo_>("expInfo"),
      childRow<&B::collStats_>("collStats"),
      childRow<&B::taskScheduler_>("taskScheduler"),
      row<&B::templatePktMsgLen_>("templatePktMsgLen"),
      row<&B::templatePktTemplateCount_>("templatePktTemplateCount"),
      row<&B::templateReady_>("templateReady"),
      mapRow<&B::templateLen_>("templateLen"),
      mapRow<&B::collector4_p>("collectorIpAndPort"),
      mapRow<&B::collector6_p>("collectorIp6AndPort"),
      mapRow<&B::exportTimeU32_>("exportTimeU32"),
      row<&B::templateTxCount_>("templateTxCount"),
      row<&B::periodicTask_p>("periodicTemplateTxTask"),
      row<&B::sending4_p>("sending4_p"),
      row<&B::sending6_p>("sending6_p"),
      row<&B::creationTask_p>("templateCreationTask"),
      row<&B::initialized_>("initialized"),
      actionRow<&B::resend>("resend"),
  };
  all.insert(all.end(), rows);
  return all;
}

}  // namespace FlowTracking
