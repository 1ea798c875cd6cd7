#pragma once
#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/MessageBuilder.h"
#include "Ipfix/OptionsDataExporter.h"
#include "platform/HwFlowTracking.h"
#include "platform/Ring.h"
#include "platform/TaskScheduler.h"

namespace FlowTracking {

class OptionsDataExporterSm;

/// Data records of one template in a message.
struct SetRecord {
  TemplateId setId = 0;
  uint64_t count = 0;
  void countInc(uint64_t n) { count += n; }
};

/// The set records of one message, by template id. A message holds few templates, mostly one: that
/// one costs no allocation.
class TARN_API SetRecords {
 public:
  /// The template's record, made when there is none; valid until the next one is made.
  SetRecord& operator[](TemplateId setId) {
    if (first_.count == 0 || first_.setId == setId) {
      first_.setId = setId;
      return first_;
    }
    for (SetRecord& r : more_)
      if (r.setId == setId) return r;
    return more_.emplace_back(SetRecord{.setId = setId});
  }
  template <class Visit>
  void each(Visit&& visit) const {
    if (first_.count > 0) visit(first_);
    for (const SetRecord& r : more_) visit(r);
  }
  void add(const SetRecords& o) {
    if (o.first_.setId == first_.setId && o.more_.empty()) [[likely]] {
      first_.count += o.first_.count;
    } else {
      o.each([this](const SetRecord& r) { (*this)[r.setId].countInc(r.count); });
    }
  }

 private:
  SetRecord first_;
  std::vector<SetRecord> more_;
};

/// One finished options data message and what it holds, by template id.
class TARN_API MessageWrapper final : public Counted<MessageWrapper> {
 public:
  Ptr<Message> message;
  SetRecords setRecord;

  static void* operator new(size_t len);
  static void operator delete(void* p, size_t len);
};

/// What a collector was sent at one go.
struct TARN_API SentMessages {
  uint64_t messages = 0;
  uint64_t records = 0;
  uint64_t octets = 0;
  SetRecords sets;

  void add(const MessageWrapper& m) {
    ++messages;
    records += m.message->recordCount();
    octets += m.message->len();
    sets.add(m.setRecord);
  }
};

/// The full tables as finished messages, and what they were made of.
struct TARN_API BuiltTables {
  struct Made {
    Ptr<const OptionsDataSource> source;
    uint32_t version;
  };
  std::vector<Made> of;
  uint32_t observationDomainId = 0;
  std::vector<Ptr<MessageWrapper>> messages;
};

/// A builder and the wrapper of the message under construction.
class TARN_API BuilderWrapper final {
 public:
  BuilderWrapper(uint16_t maxSize, uint32_t observationDomainId);
  uint16_t maxSize() const { return builder_->maxSize(); }
  uint32_t observationDomainId() const { return builder_->observationDomainId(); }
  void startMsg();
  /// Octets of the record, or 0 when it does not fit.
  uint32_t addSetRecord(TemplateId setId, const DataRecord& record) {
    const uint32_t consumed = builder_->addSetRecord(setId, record);
    if (consumed == 0) return 0;
    if (!lastSet_ || lastSet_->setId != setId) lastSet_ = &msgWrap_->setRecord[setId];
    lastSet_->countInc(1);
    return consumed;
  }
  /// Records as `MessageBuilder::addSetRecords` adds them.
  template <class It>
  It addSetRecords(TemplateId setId, It it, It end) {
    uint64_t added = 0;
    it = builder_->addSetRecords(setId, it, end, added);
    if (added > 0) {
      lastSet_ = &msgWrap_->setRecord[setId];
      lastSet_->countInc(added);
    }
    return it;
  }
  Ptr<MessageWrapper> finalizeMsg();
  /// Records in the message under construction.
  uint32_t recordCount() const { return builder_->recordCount(); }

 private:
  Ptr<MessageBuilder> builder_;
  Ptr<MessageWrapper> msgWrap_;
  SetRecord* lastSet_ = nullptr;  // where the last record counted: a table's follow each other
};

/// Pending incremental records of one template, first in, first out. Room for a few stays: most
/// changes come alone.
class TARN_API UpdateSetQueue {
 public:
  void recordEnq(Ptr<const DataRecord> record) { record_.emplace_back() = std::move(record); }
  const Ptr<const DataRecord>& head() const { return record_[0]; }
  void recordDel() {
    record_.pop_front();
    if (record_.empty() && record_.capacity() > 64) record_ = {};
  }
  void recordDelAll() { record_ = {}; }
  bool empty() const { return record_.empty(); }

 private:
  Ring<Ptr<const DataRecord>> record_;
};

/// Those of all templates, in the order of their ids.
class TARN_API UpdateQueues {
 public:
  struct Of {
    TemplateId setId = 0;
    UpdateSetQueue queue;
  };
  UpdateSetQueue& operator[](TemplateId setId) {
    auto at = of_.begin();
    while (at != of_.end() && at->setId < setId) ++at;
    if (at == of_.end() || at->setId != setId) at = of_.insert(at, Of{setId, {}});
    return at->queue;
  }
  /// The first that holds a record, or null.
  Of* first() {
    for (Of& of : of_)
      if (!of.queue.empty()) return &of;
    return nullptr;
  }
  /// How many hold records.
  size_t size() const {
    return static_cast<size_t>(
        std::count_if(of_.begin(), of_.end(), [](const Of& of) { return !of.queue.empty(); }));
  }
  bool empty() const { return size() == 0; }
  void clear() {
    for (Of& of : of_) of.queue.recordDelAll();
  }

 private:
  std::vector<Of> of_;  // a handful
};

/// An options data exporter's handle on one destination: numbers, stamps, sends and counts.
class TARN_API Collector final : public Counted<Collector> {
 public:
  /// With a port in `dst4` it is an IPv4 collector.
  Collector(std::string name, Ptr<CollectorInfo> collInfo, const IpAndPort& dst4,
            const Ip6AndPort& dst6, OptionsDataExporterSm* exporterSm)
      : Collector(std::move(name), std::move(collInfo), dst4, dst6, exporterSm, dst4.port != 0) {}
  Collector(std::string name, Ptr<CollectorInfo> collInfo, const IpAndPort& dst4,
            const Ip6AndPort& dst6, OptionsDataExporterSm* exporterSm, bool ipv4)
      : name_(std::move(name)),
        collInfo_(std::move(collInfo)),
        dst4_(dst4),
        dst6_(dst6),
        ipv4_(ipv4),
        exporterSm_(exporterSm) {}
  const std::string& name() const { return name_; }
  const Ptr<CollectorInfo>& collInfo() const { return collInfo_; }
  const IpAndPort& dst4() const { return dst4_; }
  const Ip6AndPort& dst6() const { return dst6_; }
  bool isIpv4() const { return ipv4_; }
  /// Its exporter still sends to it.
  bool active() const { return exporterSm_ != nullptr; }
  void retire() { exporterSm_ = nullptr; }

  /// Numbers, stamps and sends one message, and counts it. The family's endpoint and source must be
  /// there (asserted).
  void sendMessage(const ExporterInfo& expInfo, const HwFlowTracking::ExporterConfig& hwExpConfig,
                   const Ptr<MessageWrapper>& msgWrap);
  /// Without counting: nobody hears of it, so that nothing changes from one message to the next,
  /// and the caller counts them at one go.
  SentMessages transmit(const ExporterInfo& expInfo,
                        const HwFlowTracking::ExporterConfig& hwExpConfig,
                        std::span<const Ptr<MessageWrapper>> messages);
  void updateStats(const SentMessages& sent);

 private:
  std::string name_;
  Ptr<CollectorInfo> collInfo_;
  IpAndPort dst4_;
  Ip6AndPort dst6_;
  bool ipv4_;
  OptionsDataExporterSm* exporterSm_;  // null once the exporter has dropped it
};

/// Sends the options data of one (exporter, tracker): the full tables every active interval and to
/// each collector that is new, out of a cache of built messages; single changes soon after they
/// happen, coalesced. A collector is served once its options templates have gone out.
///
/// A full transmission is handed to the endpoints piece by piece, as fast as they send: templates
/// and changes do not wait behind it. What changes meanwhile is sent at once, and once more at the
/// end, since a piece that follows may hold it as it was.
class TARN_API OptionsDataExporterSm final : public Entity {
 public:
  static Ptr<OptionsDataExporterSm> OptionsDataExporterSmIs(
      const std::string& expName, const std::string& ftName, FtId ftId,
      Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
      Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
      Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
      Ptr<const OptionsDataContainer> dataContainer, Ptr<TaskScheduler> scheduler);
  ~OptionsDataExporterSm() override;

  const std::string& expName() const { return expName_; }
  const std::string& ftName() const { return ftName_; }
  FtId ftId() const { return ftId_; }
  const Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig() const { return hwExpConfig_; }
  const Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
  const Ptr<Tarn::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
  const std::map<std::string, Ptr<Collector>>& collector4() const { return collector4_; }
  const std::map<std::string, Ptr<Collector>>& collector6() const { return collector6_; }
  const std::map<std::string, Ptr<Collector>>& collector() const { return collector_; }
  uint32_t updateQueueBytes() const { return updateQueueBytes_; }
  double updateDataCoalesceTime() const { return updateDataCoalesceTime_.count(); }
  void updateDataCoalesceTimeIs(double seconds) { updateDataCoalesceTime_ = Seconds(seconds); }
  size_t msgCacheSize() const { return msgCache_ ? msgCache_->messages.size() : 0; }
  bool msgCacheValid() const { return msgCacheValid_; }
  /// Null before the first full transmission.
  const std::shared_ptr<const BuiltTables>& msgCache() const { return msgCache_; }
  uint32_t msgCacheBuildCount() const { return msgCacheBuildCount_; }
  /// A periodic transmission of the full tables is in progress.
  bool processing() const { return processing_; }
  /// Collectors that full tables are on their way to, periodic or not.
  size_t transmissions() const { return transmission_.size(); }
  bool initialized() const { return initialized_; }
  /// "<exporter> for <tracker>"
  const std::string& traceId() const { return traceId_; }

  /// The family has an open endpoint, a source address and somebody to send to.
  bool v4Ready() const;
  bool v6Ready() const;
  /// Milliseconds between full transmissions.
  uint32_t activeInterval() const;
  /// Sends the full tables to every collector again as soon as possible, behind what else is due,
  /// and then every active interval from now on.
  void resend();

  void handleInitialized();
  void handleSrc4();
  void handleSrc6();
  void handleCollector4(const std::string& name);
  void handleCollector6(const std::string& name);
  /// Queues the collector for the full tables.
  void handleCollector(const std::string& name);
  void handleUpdateData(OptionsDataScope scope);

  AttrRows attrRows() const override;

 private:
  class HwExpConfigSm;
  class HwFtConfigSm;
  class ExpInfoSm;
  class CollInfoSm;
  class UpdateSm;
  class SourceCollSm;
  class SourceSm;

  OptionsDataExporterSm(const std::string& expName, const std::string& ftName, FtId ftId,
                        Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                        Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                        Ptr<ExporterInfo> expInfo, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                        Ptr<const OptionsDataContainer> dataContainer,
                        Ptr<TaskScheduler> scheduler);

  template <void (OptionsDataExporterSm::*body)()>
  std::unique_ptr<TimerTask> task_p(const char* prefix);
  uint16_t maxMsgSize_p() const;
  void handleCollInfo(const std::string& name);
  template <class Dst>
  void collectorIs_p(std::map<std::string, Ptr<Collector>>& family,
                     const std::map<std::string, Dst>& configured, const std::string& name);
  void collectorDel_p(std::map<std::string, Ptr<Collector>>& family, const std::string& name);
  void resendAll_p(const std::map<std::string, Ptr<Collector>>& family);
  void handleUdpPam4();
  void handleUdpPam6();
  void handleActiveInterval();

  void maybeSchedulePeriodic();
  void maybeBeginPeriodicTransmission();
  void maybeBuildMsgCache();
  std::shared_ptr<const BuiltTables> builtByOthers_p() const;
  void sendDataTables();
  void beginTransmission_p(const Ptr<Collector>& collector, bool periodic);
  void continueTransmissions();
  bool backlogged_p() const;
  void endTransmissions_p();
  void updateEnq_p(TemplateId setId, Ptr<const DataRecord> record);
  bool familyReady_p(const Collector& collector) const;
  void sendMessageToCollectors(const Ptr<MessageWrapper>& msgWrap);
  bool reachable_p(const Collector& collector) const;
  void processCollectorQueue();
  void flushUpdateQueue();
  void abortUpdates();

  std::string expName_;
  std::string ftName_;
  FtId ftId_;
  Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;  // may be null
  Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig_;
  Ptr<ExporterInfo> expInfo_;
  Ptr<Tarn::Ipfix::CollectorStatistics> collStats_;
  Ptr<const OptionsDataContainer> dataContainer_;
  Ptr<TaskScheduler> scheduler_;
  std::string traceId_;
  std::map<std::string, Ptr<Collector>> collector4_;
  std::map<std::string, Ptr<Collector>> collector6_;
  std::map<std::string, Ptr<Collector>> collector_;
  std::map<std::string, std::unique_ptr<CollInfoSm>> collInfo_;
  std::set<std::string> collectorUpdate_;
  std::map<OptionsDataScope, std::unique_ptr<UpdateSm>> updateDataEnt_;
  std::map<OptionsDataScope, std::unique_ptr<SourceCollSm>> scopedDataSource_;
  UpdateQueues update_;
  uint32_t updateQueueBytes_ = 0;
  Seconds updateDataCoalesceTime_{1.0};
  std::shared_ptr<const BuiltTables> msgCache_;
  bool msgCacheValid_ = false;
  uint32_t msgCacheBuildCount_ = 0;
  bool processing_ = false;
  bool initialized_ = false;
  struct Transmission {
    Ptr<Collector> collector;
    std::shared_ptr<const BuiltTables> tables;
    bool periodic = false;
    size_t next = 0;  // message
  };
  std::vector<Transmission> transmission_;
  std::vector<std::pair<TemplateId, Ptr<const DataRecord>>> changedMeanwhile_;
  bool tablesAgain_ = false;  // more changed meanwhile than is worth remembering, or was asked for
  std::unique_ptr<TimerTask> continueTask_;
  std::unique_ptr<TimerTask> updateTask_;
  std::unique_ptr<TimerTask> collectorUpdateTask_;
  std::unique_ptr<TimerTask> txPeriodicTask_;
  std::unique_ptr<HwExpConfigSm> hwExpConfigSm_;
  std::unique_ptr<HwFtConfigSm> hwFtConfigSm_;
  std::unique_ptr<ExpInfoSm> expInfoSm_;
};
TARN_API Ptr<OptionsDataExporterSm> optionsDataExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<const OptionsDataContainer> dataContainer,
    Ptr<TaskScheduler> scheduler);

}  // namespace FlowTracking
