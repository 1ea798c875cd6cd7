#pragma once
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "platform/HwFlowTracking.h"
#include "platform/Pkt.h"
#include "platform/TaskScheduler.h"

namespace FlowTracking {

/// Keeps one template message of one (tracker, exporter) and sends it to each of the exporter's
/// collectors: at once when the collector, the message or the endpoint is new, then every template
/// interval; each family by itself. A subclass says which templates the message holds and calls
/// `scheduleTemplateCreation_p` when they change; the creation task builds the message and sends
/// it.
///
/// Several notifications may tell of one change; each collector gets the message once for it,
/// whichever reactor heard first. The watchers that a transmission notifies may change everything,
/// and may remove this exporter: before each message the exporter reads again who is to get it,
/// through which endpoint.
class TARN_API TemplateExporterSmBase : public Entity {
 public:
  using FieldMap = std::map<uint32_t, HwFlowTracking::FtTemplateEntry>;
  /// One template of the message. It refers to the fields of the entity that it was made from.
  struct TARN_API TemplateRecord {
    TemplateId templateId;
    const FieldMap* scopeField;  ///< null: a data template, which has no scope
    const FieldMap* field;
    /// Octets of the record: its header and field specifiers (RFC 7011, 3.4.1 and 3.4.2.2).
    uint32_t len() const;
  };

  ~TemplateExporterSmBase() override;

  virtual std::string taskPrefix() const;  ///< subclasses only: the base asserts
  virtual uint16_t headerSetId() const;    ///< subclasses only: the base asserts
  /// Called after each message to a collector. Not called when a watcher of the transmission took
  /// the collector out of the configuration or out of `ExporterInfo`, moved it elsewhere or closed
  /// its endpoint: then what was sent says nothing about the collector of that name as it is now.
  virtual void updateCollectorOnTx(const std::string& /*collectorName*/) {}

 protected:
  virtual void periodicTemplateTxTaskDel() { periodicTemplateTxTask_.reset(); }
  virtual void periodicTemplateTxTaskIs(const Ptr<TaskScheduler>& scheduler, TaskPriority priority,
                                        const std::string& name);

 public:
  const std::string& expName() const { return expName_; }
  const std::string& ftName() const { return ftName_; }
  FtId ftId() const { return ftId_; }
  const Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig() const { return hwExpConfig_; }
  const Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
  const Ptr<Tarn::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
  const Ptr<TaskScheduler>& taskScheduler() const { return taskScheduler_; }
  /// The message, null while there is none.
  const Ptr<Pkt>& templatePkt() const { return templatePkt_; }
  /// Octets of the message, headers included; 0 while there is none.
  uint16_t templatePktMsgLen() const { return templatePktMsgLen_; }
  uint16_t templatePktTemplateCount() const { return templatePktTemplateCount_; }
  /// The message is complete and may be sent.
  bool templateReady() const { return templateReady_; }
  /// Octets of each template record in the message; 0 for a template that it does not hold.
  const std::map<TemplateId, uint32_t>& templateLen() const { return templateLen_; }
  uint32_t templateLen(TemplateId id) const { return find(templateLen_, id); }
  /// Where each collector's templates were last meant to go, by collector name; address and port
  /// are zero for a name that is not there.
  const std::map<std::string, IpAndPort>& collectorIpAndPort() const { return collector4_; }
  IpAndPort collectorIpAndPort(const std::string& name) const { return find(collector4_, name); }
  const std::map<std::string, Ip6AndPort>& collectorIp6AndPort() const { return collector6_; }
  Ip6AndPort collectorIp6AndPort(const std::string& name) const { return find(collector6_, name); }
  /// Export time of the last message to each collector, by collector name: seconds since 1970, UTC;
  /// 0 for a collector that was sent none. It stays when the collector moves between the families.
  const std::map<std::string, uint32_t>& exportTimeU32() const { return exportTimeU32_; }
  uint32_t exportTimeU32(const std::string& name) const { return find(exportTimeU32_, name); }
  /// Messages sent so far, to all collectors.
  uint32_t templateTxCount() const { return templateTxCount_; }
  /// The collector has been sent the message as it is now, and that through the endpoint, from and
  /// to the addresses of now: data that the message describes may follow.
  bool hasTemplates(const std::string& collectorName) const;
  /// At least one collector of the family is being sent to.
  bool sending4_p() const { return sending4_; }
  bool sending6_p() const { return sending6_; }
  /// Null before `handleStartup`.
  const TimerTask* periodicTemplateTxTask() const { return periodicTemplateTxTask_.get(); }
  /// Null before the subclass has initialised itself.
  const TimerTask* templateCreationTask() const { return templateCreationTask_.get(); }
  bool initialized() const { return initialized_; }
  /// The message holds the templates as they are now. After a change it does not until the
  /// creation task has run.
  bool current() const { return templateReady_ && !templateCreationTask_->scheduled(); }
  /// "<tracker> for <exporter>"
  const std::string& traceId() const { return traceId_; }

  /// Sends the message to every collector again now, and then every interval from now on. Nothing
  /// where nobody is being sent to.
  void resend();
  /// Zeroes every counter of this exporter's collectors.
  void clearCounters();

 protected:
  TemplateExporterSmBase(const std::string& expName, const std::string& ftName, FtId ftId,
                         Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                         Ptr<ExporterInfo> expInfo, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                         Ptr<TaskScheduler> taskScheduler);

  /// Class name for traces.
  virtual const char* className_p() const = 0;
  /// What to trace when there is no template.
  virtual const char* noTemplates_p() const = 0;
  /// The templates of the next message, in the order in which they stand in it.
  virtual std::vector<TemplateRecord> templates_p() const = 0;
  /// Octets of all template records.
  uint32_t templatesLen_p() const;
  /// Asserts that the field may be sent, and traces it.
  virtual void checkField_p(const HwFlowTracking::FtTemplateEntry& entry, bool scope) const = 0;

  // The state is this class's own; none of these notifies anybody.
  void templatePktIs(Ptr<Pkt> v) { templatePkt_ = std::move(v); }
  void templatePktMsgLenIs(uint16_t v) { templatePktMsgLen_ = v; }
  void templatePktTemplateCountIs(uint16_t v) { templatePktTemplateCount_ = v; }
  void templatePktTemplateCountInc(uint16_t n) {
    templatePktTemplateCount_ = static_cast<uint16_t>(templatePktTemplateCount_ + n);
  }
  void templateReadyIs(bool v);
  void templateLenIs(TemplateId id, uint32_t len) { templateLen_[id] = len; }
  void templateLenDel(TemplateId id) { templateLen_.erase(id); }
  void templateLenDelAll() { templateLen_.clear(); }
  void collectorIpAndPortIs(const std::string& name, const IpAndPort& v) { collector4_[name] = v; }
  void collectorIpAndPortDel(const std::string& name) { collector4_.erase(name); }
  void collectorIpAndPortDelAll() { collector4_.clear(); }
  void collectorIp6AndPortIs(const std::string& name, const Ip6AndPort& v) {
    collector6_[name] = v;
  }
  void collectorIp6AndPortDel(const std::string& name) { collector6_.erase(name); }
  void collectorIp6AndPortDelAll() { collector6_.clear(); }
  void exportTimeU32Is(const std::string& name, uint32_t v) { exportTimeU32_[name] = v; }
  void exportTimeU32Del(const std::string& name) { exportTimeU32_.erase(name); }
  void exportTimeU32DelAll() { exportTimeU32_.clear(); }
  void templateTxCountIs(uint32_t v) { templateTxCount_ = v; }
  void templateTxCountInc(uint32_t n) { templateTxCount_ += n; }

  /// Subclasses call the two in their own start-up, in this order.
  void handleStartup();
  void startTemplateCreation_p();
  /// A run that is due keeps its place: changes in every round must not put the message off.
  void scheduleTemplateCreation_p() { templateCreationTask_->scheduleLowestIs(Seconds(0)); }
  Ptr<Pkt> getPkt() const;
  /// Writes one field specifier at `offset` and returns the offset behind it.
  uint32_t addTemplateFieldSpecifier(const Ptr<Pkt>& pkt, uint32_t offset,
                                     const HwFlowTracking::FtTemplateEntry& entry) const;
  /// The rows of this class and behind them the subclass's.
  static std::vector<AttrRow> rowsWith_p(std::initializer_list<AttrRow> rows);
  /// Stops the tasks and removes the collectors' statistics.
  void handleRetired() override;

 private:
  class HwExpConfigSm;
  class ExpInfoSm;
  template <class V>
  class Family;
  /// Whom a pass sends to: those who lack the message as it would be sent now, or everybody.
  enum class Pass { lacking, everybody };

  void handleTemplateCreationTask();
  uint32_t addTemplate_p(uint32_t offset, const TemplateRecord& record);
  void finishMessage();
  void addIpfixHeaders_p();
  void maybeTxTemplate_p(Pass pass);
  void updateMsgHeader_p(const std::string& collectorName);
  void updateStats(const Tarn::Ipfix::CollectorInfo& collector);
  Tarn::Ipfix::CollectorStatisticsKey statsKey_p(const Tarn::Ipfix::CollectorInfo& c) const {
    return {ftName_, expName_, c};
  }
  void handleTemplateReady();
  void handleTemplateInterval();
  void handleDel();
  std::string taskName_p(const char* kind) const;
  void schedulePeriodicTemplateTx_p();
  void handlePeriodicTemplateTx();
  void stopPeriodicTemplateTx_p();
  template <class... A>
  void say_p(int level, const char* handler, const A&... what) const;
  std::string periodicTask_p() const { return state_p(periodicTemplateTxTask_.get()); }
  std::string creationTask_p() const { return state_p(templateCreationTask_.get()); }
  static std::string state_p(const TimerTask* task);

  std::string expName_;
  std::string ftName_;
  FtId ftId_;
  Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig_;
  Ptr<ExporterInfo> expInfo_;
  Ptr<Tarn::Ipfix::CollectorStatistics> collStats_;
  Ptr<TaskScheduler> taskScheduler_;
  std::string traceId_;
  Ptr<Pkt> templatePkt_;
  uint16_t templatePktMsgLen_ = 0;
  uint16_t templatePktTemplateCount_ = 0;
  bool templateReady_ = false;
  bool initialized_ = false;
  uint32_t messageBuild_ = 0;  // counts messages, to tell who has which
  std::map<TemplateId, uint32_t> templateLen_;
  std::map<std::string, IpAndPort> collector4_;
  std::map<std::string, Ip6AndPort> collector6_;
  std::map<std::string, uint32_t> exportTimeU32_;
  uint32_t templateTxCount_ = 0;
  bool sending4_ = false;
  bool sending6_ = false;
  std::unique_ptr<Family<V4>> family4_;
  std::unique_ptr<Family<V6>> family6_;
  std::unique_ptr<TimerTask> periodicTemplateTxTask_;
  std::unique_ptr<TimerTask> templateCreationTask_;
  std::unique_ptr<HwExpConfigSm> hwExpConfigSm_;
  std::unique_ptr<ExpInfoSm> expInfoSm_;
};

}  // namespace FlowTracking
