#include "Ipfix/TemplateSmBase.h"

#include <algorithm>
#include <numeric>

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Ipfix/MessageBuilder.h"
#include "platform/Platform.h"
#include "platform/Trace.h"

namespace FlowTracking {

using ::Ipfix::IpfixConst;
using Tarn::Ipfix::CollectorStatisticsEntry;
using Tarn::Ipfix::CollectorStatisticsKey;

namespace {
constexpr TaskPriority taskPriority = 2;
constexpr uint32_t headersLen = IpfixConst::messageHeaderLen() + IpfixConst::setHeaderLen();
}  // namespace

template <class Traits>
struct TemplateExporterSmBase::Family {
  /// What a collector was sent, and how. As long as nothing of it differs, it lacks nothing.
  struct Sent {
    uint32_t messageBuild = 0;
    Ptr<UdpPam> pam;  // held, so that a new endpoint cannot come to lie at the old one's address
    typename Traits::Addr src;
    typename Traits::Dst dst;
    bool operator==(const Sent&) const = default;
  };
  std::map<std::string, typename Traits::Dst> collector;
  std::map<std::string, Sent> sent;
  bool sending = false;
};

class TemplateExporterSmBase::HwExpConfigSm final : public HwFlowTracking::ExporterConfig::Watcher {
 public:
  explicit HwExpConfigSm(TemplateExporterSmBase& sm) : Watcher(sm.hwExpConfig_), sm_(sm) {}
  void handleTemplateInterval() override { sm_.handleTemplateInterval(); }
  void handleCollectorIpAndPort(const std::string& name) override {
    sm_.handleCollector_p(*sm_.family4_, name);
  }
  void handleCollectorIp6AndPort(const std::string& name) override {
    sm_.handleCollector_p(*sm_.family6_, name);
  }
  void handleExporter4Ready() override { sm_.maybeTx_p(*sm_.family4_, Pass::lacking); }
  void handleSrcIpAddr() override { sm_.maybeTx_p(*sm_.family4_, Pass::lacking); }
  void handleExporter6Ready() override { sm_.maybeTx_p(*sm_.family6_, Pass::lacking); }
  void handleSrcIp6Addr() override { sm_.maybeTx_p(*sm_.family6_, Pass::lacking); }

 private:
  TemplateExporterSmBase& sm_;
};

class TemplateExporterSmBase::ExpInfoSm final : public ExporterInfo::Watcher {
 public:
  explicit ExpInfoSm(TemplateExporterSmBase& sm) : Watcher(sm.expInfo_), sm_(sm) {}
  void handleUdpPam4() override { sm_.maybeTx_p(*sm_.family4_, Pass::lacking); }
  void handleUdpPam6() override { sm_.maybeTx_p(*sm_.family6_, Pass::lacking); }
  void handleCollInfo(const std::string& name) override { sm_.handleCollInfo(name); }

 private:
  TemplateExporterSmBase& sm_;
};

TemplateExporterSmBase::TemplateExporterSmBase(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler)
    : taskScheduler_(std::move(taskScheduler)),
      expName_(expName),
      ftName_(ftName),
      ftId_(ftId),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      collStats_(std::move(collStats)),
      traceId_(ftName + " for " + expName),
      family4_(std::make_unique<Family<V4>>()),
      family6_(std::make_unique<Family<V6>>()),
      hwExpConfigSm_(std::make_unique<HwExpConfigSm>(*this)),
      expInfoSm_(std::make_unique<ExpInfoSm>(*this)) {}
TemplateExporterSmBase::~TemplateExporterSmBase() { handleDel(); }

std::string TemplateExporterSmBase::taskPrefix() const {
  assertionFailed("(!(\"taskPrefix\"))", __FILE__, __LINE__);
}
uint16_t TemplateExporterSmBase::headerSetId() const {
  assertionFailed("(!(\"headerSetId\"))", __FILE__, __LINE__);
}

const std::map<std::string, IpAndPort>& TemplateExporterSmBase::collectorIpAndPort() const {
  return family4_->collector;
}
const std::map<std::string, Ip6AndPort>& TemplateExporterSmBase::collectorIp6AndPort() const {
  return family6_->collector;
}
bool TemplateExporterSmBase::sending4_p() const { return family4_->sending; }
bool TemplateExporterSmBase::sending6_p() const { return family6_->sending; }

void TemplateExporterSmBase::handleStartup() {
  templateReady_ = false;
  templateTxCount_ = 0;
  periodicTemplateTxTaskIs(taskScheduler_, taskPriority, taskName_p("PeriodicTxTask"));
}
std::string TemplateExporterSmBase::taskName_p(const char* kind) const {
  return taskPrefix() + "-" + kind + "-" + ftName_ + "-" + expName_;
}
void TemplateExporterSmBase::periodicTemplateTxTaskIs(const Ptr<TaskScheduler>& scheduler,
                                                      TaskPriority priority,
                                                      const std::string& name) {
  periodicTemplateTxTask_ =
      scheduler->timerTask(name, priority, [this] { handlePeriodicTemplateTx(); });
}

// --- The message ---

Ptr<Pkt> TemplateExporterSmBase::getPkt() const { return Platform::current().newPkt(); }

bool TemplateExporterSmBase::startMessage_p(uint32_t length) {
  if (length == 0 || length > IpfixConst::maxUdpPayload() - headersLen) {
    if (length > 0)
      trace(TraceLevel::error, "TemplateExporterSmBase::", traceId_, " templates of ", length,
            " octets do not fit a datagram, not sent");
    templatePktIs(nullptr);
    templateReadyIs(false);
    return false;
  }
  templatePktIs(getPkt());
  templateReadyIs(false);
  templatePkt_->dataTailInc(length);
  return true;
}

uint32_t TemplateExporterSmBase::addTemplateFieldSpecifier(
    const Ptr<Pkt>& pkt, uint32_t offset, const HwFlowTracking::FtTemplateEntry& entry) const {
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
  templatePktMsgLen_ = static_cast<uint16_t>(setLen + IpfixConst::messageHeaderLen());

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
  trace(TraceLevel::packet, "TemplateExporterSmBase::", traceId_,
        " Template pkt->hexdump:", HexDump{templatePkt_->octets()});
}
void TemplateExporterSmBase::finishMessage() {
  addIpfixHeaders_p();
  maybeTxTemplate_p(Pass::everybody);
}

void TemplateExporterSmBase::templateReadyIs(bool v) {
  if (templateReady_ == v) return;
  templateReady_ = v;
  handleTemplateReady();
}
void TemplateExporterSmBase::handleTemplateReady() {
  if (templateReady_) return;
  templatePktMsgLen_ = 0;
  templatePktTemplateCount_ = 0;
  family4_->sending = family6_->sending = false;
  stopPeriodicTemplateTx_p();
}

// --- Sending ---

template <class Traits>
bool TemplateExporterSmBase::txReady_p() const {
  return templateReady_ && Traits::ready(*hwExpConfig_) && !Traits::src(*hwExpConfig_).isZero() &&
         Traits::pam(*expInfo_);
}

void TemplateExporterSmBase::maybeTxTemplate_p(Pass pass) {
  maybeTx_p(*family4_, pass);
  maybeTx_p(*family6_, pass);
}

template <class Traits>
void TemplateExporterSmBase::maybeTx_p(Family<Traits>& family, Pass pass) {
  const Ptr<TemplateExporterSmBase> hold(this);  // who hears of this may delete the exporter
  if (!txReady_p<Traits>()) {
    family.sending = false;
    family.sent.clear();
    stopPeriodicIfIdle_p();
    return;
  }
  const auto collectors = Traits::collectors(*hwExpConfig_);  // a copy: sending notifies
  bool any = false;
  for (const auto& [name, dst] : collectors) {
    if (!expInfo_->collInfo(name)) continue;
    any = true;
    if (pass == Pass::everybody || lacks_p(family, dst, name)) doTx_p(family, dst, name);
  }
  family.sending = any;
  if (any) {
    schedulePeriodicTemplateTx_p();
  } else {
    stopPeriodicIfIdle_p();
  }
}

template <class Traits>
bool TemplateExporterSmBase::lacks_p(const Family<Traits>& family, const typename Traits::Dst& dst,
                                     const std::string& name) const {
  const auto last = family.sent.find(name);
  return last == family.sent.end() ||
         last->second != typename Family<Traits>::Sent{messageBuild_, Traits::pam(*expInfo_),
                                                       Traits::src(*hwExpConfig_), dst};
}

template <class Traits>
bool TemplateExporterSmBase::has_p(const Family<Traits>& family, const std::string& name) const {
  const auto& collectors = Traits::collectors(*hwExpConfig_);
  const auto collector = collectors.find(name);
  return collector != collectors.end() && expInfo_->collInfo(name) && txReady_p<Traits>() &&
         !lacks_p(family, collector->second, name);
}
bool TemplateExporterSmBase::hasTemplates(const std::string& collectorName) const {
  return has_p(*family4_, collectorName) || has_p(*family6_, collectorName);
}

template <class Traits>
void TemplateExporterSmBase::doTx_p(Family<Traits>& family, const typename Traits::Dst& dst,
                                    const std::string& name) {
  updateMsgHeader_p(name);
  const auto src = Traits::src(*hwExpConfig_);
  const DscpValue dscp = hwExpConfig_->dscp();
  const Ptr<UdpPam> pam = Traits::pam(*expInfo_);
  // What was meant for the collector is remembered first: a handler may come back here.
  family.collector.insert_or_assign(name, dst);
  family.sent.insert_or_assign(name, typename Family<Traits>::Sent{messageBuild_, pam, src, dst});
  Traits::send(templatePkt_, pam, src, dst, dscp);
  trace(TraceLevel::detail, "TemplateExporterSmBase::", traceId_, " Template sent to", " ", name,
        ", dst ip:", dst.addr.stringValue(), ", dst port:", dst.port, ", src:", src.stringValue(),
        ", tos :", int{dscp.tos()});
  updateStats(Traits::info(dst));
  ++templateTxCount_;
  updateCollectorOnTx(name);
  if (Traits::pam(*expInfo_) == pam) Traits::rxPortIs(*expInfo_, pam->rxPort());
}

void TemplateExporterSmBase::updateMsgHeader_p(const std::string& collectorName) {
  const uint32_t exportTime = Platform::current().clock().nowU32();
  const auto seqNo = expInfo_->collInfo(collectorName)->ipfixMsgSeqNo();
  MessageHeader header(templatePkt_, 0);
  header.exportTimeIs(exportTime);
  header.seqNoIs(seqNo.value());  // templates are no data records: the number stays
  exportTimeU32_[collectorName] = exportTime;
  trace(TraceLevel::detail, "TemplateExporterSmBase::", traceId_, " Collector", " ", collectorName,
        " has seqNo ", seqNo);
}

// --- Collectors ---

template <class Traits>
void TemplateExporterSmBase::handleCollector_p(Family<Traits>& family, const std::string& name) {
  const Ptr<TemplateExporterSmBase> hold(this);
  const auto configured = Traits::collectors(*hwExpConfig_).find(name);
  const auto own = family.collector.find(name);
  if (configured == Traits::collectors(*hwExpConfig_).end()) {
    if (own == family.collector.end()) return;
    const auto dst = own->second;
    family.collector.erase(own);
    family.sent.erase(name);
    exportTimeU32_.erase(name);
    statsDel_p(family, name, dst);
    if (family.collector.empty()) family.sending = false;
    stopPeriodicIfIdle_p();
    return;
  }
  const auto dst = configured->second;
  if (own != family.collector.end() && own->second != dst) {
    const auto old = std::exchange(own->second, dst);
    statsDel_p(family, name, old);  // nothing counts there any more
  }
  family.collector.insert_or_assign(name, dst);
  const bool known{expInfo_->collInfo(name)};
  if (!known) family.sent.erase(name);  // when it returns, it is a new session
  if (!family.sending || !txReady_p<Traits>()) {
    maybeTx_p(family, Pass::lacking);
    return;
  }
  if (known && lacks_p(family, dst, name)) doTx_p(family, dst, name);
  schedulePeriodicTemplateTx_p();
}
void TemplateExporterSmBase::handleCollInfo(const std::string& name) {
  handleCollector_p(*family4_, name);
  handleCollector_p(*family6_, name);
}

// --- Statistics ---

CollectorStatisticsKey TemplateExporterSmBase::statsKey_p(
    const Tarn::Ipfix::CollectorInfo& collector) const {
  return {ftName_, expName_, collector};
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

template <class Traits>
void TemplateExporterSmBase::statsDel_p(const Family<Traits>& family, const std::string& name,
                                        const typename Traits::Dst& dst) {
  // Two collectors at one address share its entry.
  const bool shared =
      std::any_of(family.collector.begin(), family.collector.end(),
                  [&](const auto& other) { return other.first != name && other.second == dst; });
  if (!shared) collStats_->statsDel(statsKey_p(Traits::info(dst)));
}
void TemplateExporterSmBase::handleDel() {
  for (const auto& [name, dst] : family4_->collector)
    collStats_->statsDel(statsKey_p(V4::info(dst)));
  for (const auto& [name, dst] : family6_->collector)
    collStats_->statsDel(statsKey_p(V6::info(dst)));
}
void TemplateExporterSmBase::clearCounters() {
  const double now = Platform::current().clock().now();
  const auto clear = [&](const Tarn::Ipfix::CollectorInfo& collector) {
    auto entry = collStats_->stats(statsKey_p(collector));
    if (!entry) return;
    entry->clear(now);
    collStats_->statsIs(*entry);
  };
  for (const auto& [name, dst] : family4_->collector) clear(V4::info(dst));
  for (const auto& [name, dst] : family6_->collector) clear(V6::info(dst));
}

// --- The period ---

void TemplateExporterSmBase::handleTemplateInterval() {
  stopPeriodicTemplateTx_p();
  maybeTxTemplate_p(Pass::everybody);
}
void TemplateExporterSmBase::schedulePeriodicTemplateTx_p() {
  if (periodicTemplateTxTask_->scheduled()) {
    trace(TraceLevel::packet, "TemplateExporterSmBase::", traceId_,
          " Periodic template Tx task already scheduled");
    return;
  }
  const uint32_t seconds = hwExpConfig_->templateInterval() / 1000;
  trace(TraceLevel::detail, "TemplateExporterSmBase::", traceId_,
        " Periodic template Tx task scheduled with interval: ", seconds, " seconds");
  periodicTemplateTxTask_->scheduleLowestIs(Seconds(seconds));
}
void TemplateExporterSmBase::handlePeriodicTemplateTx() {
  if (!periodicTemplateTxTask_->running()) {
    trace(TraceLevel::detail, "TemplateExporterSmBase::", traceId_,
          " Returning because periodicTemplateTxTask not running.");
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
void TemplateExporterSmBase::stopPeriodicIfIdle_p() {
  if (!family4_->sending && !family6_->sending) stopPeriodicTemplateTx_p();
}

AttrRows TemplateExporterSmBase::attrRows() const {
  using B = TemplateExporterSmBase;
  static constexpr AttrRow rows[] = {
      row<&B::expName>("expName"),
      row<&B::ftName>("ftName"),
      row<&B::ftId>("ftId"),
      childRow<&B::hwExpConfig>("hwExpConfig"),
      childRow<&B::expInfo>("expInfo"),
      row<&B::templatePktMsgLen>("templatePktMsgLen"),
      row<&B::templatePktTemplateCount>("templatePktTemplateCount"),
      row<&B::templateReady>("templateReady"),
      mapRow<&B::templateLen>("templateLen"),
      mapRow<&B::collectorIpAndPort>("collectorIpAndPort"),
      mapRow<&B::collectorIp6AndPort>("collectorIp6AndPort"),
      mapRow<&B::exportTimeU32>("exportTimeU32"),
      row<&B::templateTxCount>("templateTxCount"),
      row<&B::sending4_p>("sending4"),
      row<&B::sending6_p>("sending6"),
      actionRow<&B::resend>("resend"),
  };
  return rows;
}

}  // namespace FlowTracking
