#include "Ipfix/TemplateSmBase.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Ipfix/MessageBuilder.h"
#include "platform/Platform.h"
#include "platform/Reactor.h"
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

template <class... A>
void TemplateExporterSmBase::say_p(int level, const char* handler, const A&... what) const {
  traceOf(level, "TemplateExporterSmBase", handler, traceId_, what...);
}

/// Sends over one address family, `V4` or `V6`. Sending and counting notify watchers that may
/// change anything, so configuration and endpoint are read again after each of those calls.
template <class V>
class TemplateExporterSmBase::Family {
 public:
  using Dst = typename V::Dst;
  using Collectors = std::map<std::string, Dst>;
  Family(TemplateExporterSmBase& sm, Collectors& collector, bool& sending)
      : sm_(sm), collector_(collector), sending_(sending) {}

  bool has(const std::string& name) const {
    const auto now = configured().find(name);
    return now != configured().end() && info(name) && ready() && !lacks(name, now->second);
  }

  void maybeTxTemplate_p(Pass pass = Pass::lacking) {
    if (sm_.retired()) return;
    if (ready()) {
      for (const auto& name : keysOf(configured())) txTo(name, pass);
    } else {
      sent_.clear();
    }
    settle();
  }

  void handleCollectorIpAndPort(const std::string& name) {
    if (sm_.retired()) return;
    const auto now = configured().find(name);
    const bool gone = now == configured().end();
    std::optional<Dst> left;  // the address that this collector no longer has
    if (const auto own = collector_.find(name); own != collector_.end()) {
      if (gone || own->second != now->second) left = own->second;
    } else if (gone) {
      return;
    }
    if (gone) {
      collector_.erase(name);
      if (!sm_.collector4_.contains(name) && !sm_.collector6_.contains(name))
        sm_.exportTimeU32Del(name);
    } else {
      collector_[name] = now->second;
    }
    // When it returns, it is a new session; also to an address that it had a moment ago.
    if (left || gone || !info(name)) sent_.erase(name);
    if (left) leave(*left);
    // While nobody of the family is being sent to, other collectors may lack the message as well.
    if (!sending_ || !ready()) return maybeTxTemplate_p();
    txTo(name, Pass::lacking);
    settle();
  }

  void statsDelAll() {
    for (const auto served = std::exchange(collector_, {}); const auto& [name, dst] : served)
      statsDel(dst);
  }
  void clearCounters(double now) {
    for (const auto& name : keysOf(collector_)) {
      const auto served = collector_.find(name);
      if (served == collector_.end()) continue;
      auto entry = sm_.collStats_->stats(sm_.statsKey_p(V::info(served->second)));
      if (!entry) continue;
      entry->clear(now);
      sm_.collStats_->statsIs(*entry);
    }
  }

 private:
  /// What a collector was sent, and how. As long as nothing of it differs, it lacks nothing.
  struct Sent {
    uint32_t messageBuild = 0;
    Ptr<UdpPam> pam;  // held, so that a new endpoint cannot come to lie at the old one's address
    typename V::Addr src;
    Dst dst;
    bool operator==(const Sent&) const = default;
  };
  const Collectors& configured() const { return V::collectors(*sm_.hwExpConfig_); }
  Ptr<CollectorInfo> info(const std::string& name) const { return sm_.expInfo_->collInfo(name); }
  const Ptr<UdpPam>& pam() const { return V::pam(*sm_.expInfo_); }
  bool ready() const {
    const auto& config = *sm_.hwExpConfig_;
    return sm_.templateReady_ && V::ready(config) && !V::src(config).isZero() && pam();
  }
  Sent sentNow(const Dst& dst) const {
    return {sm_.messageBuild_, pam(), V::src(*sm_.hwExpConfig_), dst};
  }
  bool lacks(const std::string& name, const Dst& dst) const {
    const auto last = sent_.find(name);
    return last == sent_.end() || last->second != sentNow(dst);
  }

  /// Sends to one collector, unless a watcher of the message before took away what that needs.
  void txTo(const std::string& name, Pass pass) {
    const auto now = configured().find(name);
    if (sm_.retired() || !ready() || now == configured().end() || !info(name)) return;
    // Where another reactor's answer to a changed address comes before this one's own, the old
    // address must be left first, or its statistics entry would stay for good.
    if (const auto own = collector_.find(name);
        own != collector_.end() && own->second != now->second)
      return handleCollectorIpAndPort(name);
    if (pass == Pass::everybody || lacks(name, now->second)) doTxTemplate_p(Dst(now->second), name);
  }
  void doTxTemplate_p(const Dst& dst, const std::string& name) {
    sm_.updateMsgHeader_p(name);
    const Sent now = sentNow(dst);
    const DscpValue dscp = sm_.hwExpConfig_->dscp();
    // Remember what was sent before anybody is notified: a handler may come back here.
    collector_[name] = dst;
    sent_.insert_or_assign(name, now);
    V::send(sm_.templatePkt_, now.pam, now.src, dst, dscp);
    sm_.say_p(TraceLevel::detail, V::ipv6 ? "doTxTemplate6_p" : "doTxTemplate4_p",
              "Template sent to", " ", name, ", dst ip:", dst.addr.stringValue(),
              ", dst port:", dst.port, ", src:", now.src.stringValue(), ", tos :", int{dscp.tos()});
    sm_.templateTxCountInc(1);
    sm_.updateStats(V::info(dst));
    if (!sm_.retired() && has(name)) sm_.updateCollectorOnTx(name);
    if (!sm_.retired() && pam() == now.pam) V::rxPortIs(*sm_.expInfo_, now.pam->rxPort());
  }
  /// Ends a pass: the periodic task runs as long as either family has a collector to send to.
  void settle() {
    if (sm_.retired()) return;
    sending_ = ready() && std::any_of(configured().begin(), configured().end(),
                                      [this](const auto& c) { return bool{info(c.first)}; });
    if (sending_) {
      sm_.schedulePeriodicTemplateTx_p();
    } else if (!sm_.sending4_ && !sm_.sending6_) {
      sm_.stopPeriodicTemplateTx_p();
    }
  }
  /// Two collectors at one address share a statistics entry and what waits in the endpoint: both go
  /// with the last of them.
  bool shared(const Dst& dst) const {
    return std::any_of(collector_.begin(), collector_.end(),
                       [&](const auto& other) { return other.second == dst; });
  }
  void statsDel(const Dst& dst) {
    if (!shared(dst)) sm_.collStats_->statsDel(sm_.statsKey_p(V::info(dst)));
  }
  /// A collector is there no more. An exporter that ends does not come here: its endpoint sends
  /// what waits before it closes.
  void leave(const Dst& dst) {
    if (const Ptr<UdpPam>& pam = V::pam(*sm_.expInfo_); pam && !shared(dst))
      pam->txDstDel(dst.addr, dst.port);
    statsDel(dst);
  }

  TemplateExporterSmBase& sm_;
  Collectors& collector_;
  bool& sending_;
  std::map<std::string, Sent> sent_;
};

class TemplateExporterSmBase::HwExpConfigSm final
    : public NestedReactor<HwFlowTracking::ExporterConfig, TemplateExporterSmBase> {
 public:
  using NestedReactor::NestedReactor;
  void handleTemplateInterval() override { sm_.handleTemplateInterval(); }
  void handleCollectorIpAndPort(const std::string& name) override {
    sm_.family4_->handleCollectorIpAndPort(name);
  }
  void handleCollectorIp6AndPort(const std::string& name) override {
    sm_.family6_->handleCollectorIpAndPort(name);
  }
  void handleExporter4Ready() override { sm_.family4_->maybeTxTemplate_p(); }
  void handleSrcIpAddr() override { sm_.family4_->maybeTxTemplate_p(); }
  void handleExporter6Ready() override { sm_.family6_->maybeTxTemplate_p(); }
  void handleSrcIp6Addr() override { sm_.family6_->maybeTxTemplate_p(); }
};

class TemplateExporterSmBase::ExpInfoSm final
    : public NestedReactor<ExporterInfo, TemplateExporterSmBase> {
 public:
  using NestedReactor::NestedReactor;
  void handleUdpPam4() override { sm_.family4_->maybeTxTemplate_p(); }
  void handleUdpPam6() override { sm_.family6_->maybeTxTemplate_p(); }
  void handleCollInfo(const std::string& name) override {
    sm_.family4_->handleCollectorIpAndPort(name);
    sm_.family6_->handleCollectorIpAndPort(name);
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
      family4_(std::make_unique<Family<V4>>(*this, collector4_, sending4_)),
      family6_(std::make_unique<Family<V6>>(*this, collector6_, sending6_)),
      hwExpConfigSm_(std::make_unique<HwExpConfigSm>(hwExpConfig_, *this)),
      expInfoSm_(std::make_unique<ExpInfoSm>(expInfo_, *this)) {}
TemplateExporterSmBase::~TemplateExporterSmBase() = default;

std::string TemplateExporterSmBase::taskPrefix() const {
  assertionFailed("(!(\"taskPrefix\"))", __FILE__, __LINE__);
}
uint16_t TemplateExporterSmBase::headerSetId() const {
  assertionFailed("(!(\"headerSetId\"))", __FILE__, __LINE__);
}

void TemplateExporterSmBase::handleStartup() {
  templateReady_ = false;
  templateTxCountIs(0);
  // Options data may be counted for these before the first message leaves here: who had their
  // templates from a predecessor keeps the mark.
  collector4_ = hwExpConfig_->collectorIpAndPort();
  collector6_ = hwExpConfig_->collectorIp6AndPort();
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

uint32_t TemplateExporterSmBase::templatesLen_p() const {
  uint32_t len = 0;
  for (const TemplateRecord& record : templates_p()) len += record.len();
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
  const uint32_t length = templatesLen_p();
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
  for (const TemplateRecord& record : templates_p()) offset = addTemplate_p(offset, record);
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
  if (entry.enterpriseIe()) field.entNumIs(IpfixConst::enterpriseNumberOf(entry.fieldId()));
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
  sending4_ = sending6_ = false;
  stopPeriodicTemplateTx_p();
}

// --- Sending ---

void TemplateExporterSmBase::maybeTxTemplate_p(Pass pass) {
  family4_->maybeTxTemplate_p(pass);
  family6_->maybeTxTemplate_p(pass);
}
bool TemplateExporterSmBase::hasTemplates(const std::string& collectorName) const {
  return family4_->has(collectorName) || family6_->has(collectorName);
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

void TemplateExporterSmBase::handleDel() {
  family4_->statsDelAll();
  family6_->statsDelAll();
}
void TemplateExporterSmBase::clearCounters() {
  const double now = Platform::current().clock().now();
  family4_->clearCounters(now);
  family6_->clearCounters(now);
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
      mapRow<&B::collector4_>("collectorIpAndPort"),
      mapRow<&B::collector6_>("collectorIp6AndPort"),
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
