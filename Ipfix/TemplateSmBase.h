#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "platform/HwFlowTracking.h"
#include "platform/Pkt.h"
#include "platform/TaskScheduler.h"

namespace FlowTracking {

/// Keeps one template message of one (tracker, exporter) and sends it to each of the exporter's
/// collectors: at once when the collector, the message or the endpoint is new, then every template
/// interval; each family by itself. A subclass appends the template records:
///
///   startMessage_p(length)                      // a fresh packet with `length` octets of data
///   ... write records; templateLenIs(id, len) for each; templatePktTemplateCountIs(n)
///   finishMessage()                             // headers, then sends
///
/// Several notifications may tell of one change; each collector gets the message once for it,
/// whichever reactor heard first.
class TARN_API TemplateExporterSmBase : public Entity {
 public:
  ~TemplateExporterSmBase() override;

  virtual std::string taskPrefix() const;  ///< subclasses only: the base asserts
  virtual uint16_t headerSetId() const;    ///< subclasses only: the base asserts
  virtual void updateCollectorOnTx(const std::string& /*collectorName*/) {}

  const std::string& expName() const { return expName_; }
  const std::string& ftName() const { return ftName_; }
  FtId ftId() const { return ftId_; }
  const Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig() const { return hwExpConfig_; }
  const Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
  const Ptr<Pkt>& templatePkt() const { return templatePkt_; }
  void templatePktIs(Ptr<Pkt> v) { templatePkt_ = std::move(v); }
  uint16_t templatePktMsgLen() const { return templatePktMsgLen_; }
  uint16_t templatePktTemplateCount() const { return templatePktTemplateCount_; }
  void templatePktTemplateCountIs(uint16_t v) { templatePktTemplateCount_ = v; }
  void templatePktTemplateCountInc(uint16_t n) {
    templatePktTemplateCount_ = static_cast<uint16_t>(templatePktTemplateCount_ + n);
  }
  /// The message is complete and may be sent.
  bool templateReady() const { return templateReady_; }
  void templateReadyIs(bool v);
  const std::map<TemplateId, uint32_t>& templateLen() const { return templateLen_; }
  void templateLenIs(TemplateId id, uint32_t len) { templateLen_[id] = len; }
  void templateLenDelAll() { templateLen_.clear(); }
  /// Where each collector's templates were last meant to go, by collector name.
  const std::map<std::string, IpAndPort>& collectorIpAndPort() const;
  const std::map<std::string, Ip6AndPort>& collectorIp6AndPort() const;
  /// Export time of the last message to each collector, by collector name.
  const std::map<std::string, uint32_t>& exportTimeU32() const { return exportTimeU32_; }
  uint32_t templateTxCount() const { return templateTxCount_; }
  /// The collector has been sent the message as it is now, and that through the endpoint, from and
  /// to the addresses of now: data that the message describes may follow.
  bool hasTemplates(const std::string& collectorName) const;
  /// At the last pass at least one collector of the family was served.
  bool sending4_p() const;
  bool sending6_p() const;
  /// Null before `handleStartup`.
  const TimerTask* periodicTemplateTxTask() const { return periodicTemplateTxTask_.get(); }
  const std::string& traceId() const { return traceId_; }

  /// Sends the message to every collector again now, and then every interval from now on. Nothing
  /// where nobody is being sent to.
  void resend();
  /// Zeroes every counter of this exporter's collectors.
  void clearCounters();

  AttrRows attrRows() const override;

 protected:
  TemplateExporterSmBase(const std::string& expName, const std::string& ftName, FtId ftId,
                         Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                         Ptr<ExporterInfo> expInfo, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                         Ptr<TaskScheduler> taskScheduler);

  /// Subclasses call it first in their own start-up.
  void handleStartup();
  Ptr<Pkt> getPkt() const;
  /// Begins a message whose template records take `length` octets. False: there is none, or it
  /// would not fit a UDP datagram; then nothing is sent until the next message.
  bool startMessage_p(uint32_t length);
  /// Writes one field specifier at `offset` and returns the offset behind it.
  uint32_t addTemplateFieldSpecifier(const Ptr<Pkt>& pkt, uint32_t offset,
                                     const HwFlowTracking::FtTemplateEntry& entry) const;
  void finishMessage();
  std::string taskName_p(const char* kind) const;

  Ptr<TaskScheduler> taskScheduler_;

 private:
  class HwExpConfigSm;
  class ExpInfoSm;
  template <class Traits>
  struct Family;

  /// Whom a pass sends to: those who lack the message as it would be sent now, or everybody.
  enum class Pass { lacking, everybody };

  void addIpfixHeaders_p();
  void maybeTxTemplate_p(Pass pass);
  template <class Traits>
  void maybeTx_p(Family<Traits>& family, Pass pass);
  template <class Traits>
  void doTx_p(Family<Traits>& family, const typename Traits::Dst& dst, const std::string& name);
  template <class Traits>
  bool has_p(const Family<Traits>& family, const std::string& name) const;
  template <class Traits>
  bool lacks_p(const Family<Traits>& family, const typename Traits::Dst& dst,
               const std::string& name) const;
  template <class Traits>
  void handleCollector_p(Family<Traits>& family, const std::string& name);
  template <class Traits>
  bool txReady_p() const;
  template <class Traits>
  void statsDel_p(const Family<Traits>& family, const std::string& name,
                  const typename Traits::Dst& dst);
  void updateMsgHeader_p(const std::string& collectorName);
  void updateStats(const Tarn::Ipfix::CollectorInfo& collector);
  Tarn::Ipfix::CollectorStatisticsKey statsKey_p(const Tarn::Ipfix::CollectorInfo& c) const;

  void handleTemplateReady();
  void handleTemplateInterval();
  void handleCollInfo(const std::string& name);
  void handleDel();
  void periodicTemplateTxTaskIs(const Ptr<TaskScheduler>& scheduler, TaskPriority priority,
                                const std::string& name);
  void periodicTemplateTxTaskDel() { periodicTemplateTxTask_.reset(); }
  void schedulePeriodicTemplateTx_p();
  void handlePeriodicTemplateTx();
  void stopPeriodicTemplateTx_p();
  void stopPeriodicIfIdle_p();

  std::string expName_;
  std::string ftName_;
  FtId ftId_;
  Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig_;
  Ptr<ExporterInfo> expInfo_;
  Ptr<Tarn::Ipfix::CollectorStatistics> collStats_;
  std::string traceId_;
  Ptr<Pkt> templatePkt_;
  uint16_t templatePktMsgLen_ = 0;
  uint16_t templatePktTemplateCount_ = 0;
  bool templateReady_ = false;
  uint32_t messageBuild_ = 0;  // counts messages, to tell who has which
  std::map<TemplateId, uint32_t> templateLen_;
  std::unique_ptr<Family<V4>> family4_;
  std::unique_ptr<Family<V6>> family6_;
  std::map<std::string, uint32_t> exportTimeU32_;
  uint32_t templateTxCount_ = 0;
  std::unique_ptr<TimerTask> periodicTemplateTxTask_;
  std::unique_ptr<HwExpConfigSm> hwExpConfigSm_;
  std::unique_ptr<ExpInfoSm> expInfoSm_;
};

}  // namespace FlowTracking
