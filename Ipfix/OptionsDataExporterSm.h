#pragma once
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Ipfix/OptionsDataCollector.h"
#include "Ipfix/OptionsDataTransmission.h"
#include "Ipfix/OptionsDataUpdateQueue.h"

/// The reactor that exports the options data of one (exporter, tracker).
namespace FlowTracking {

TARN_API Ptr<Collector> collectorFactory(const std::string& name, Ptr<CollectorInfo> collInfo,
                                         const IpAndPort& dst4, const Ip6AndPort& dst6,
                                         OptionsDataExporterSm* exporterSm);

/// Sends the full tables every active interval and to each collector that is new, out of a cache of
/// built messages; single changes soon after they happen, coalesced. A collector is served once its
/// options templates have gone out.
///
/// Full tables are handed to the endpoints piece by piece, as fast as they send: templates and
/// changes do not wait behind them. What changes meanwhile is sent at once, and once more at the
/// end, since a piece that follows may hold it as it was. Each transmission begins with the tables
/// as they are then; one that is under way keeps those that it began with. What an endpoint may
/// have to keep waiting: see `Backlog`.
///
/// Counting what was sent notifies the watchers of the statistics; they may retire this exporter,
/// remove collectors and close endpoints.
class TARN_API OptionsDataExporterSm final : public Entity {
 public:
  using Collectors = std::map<std::string, Ptr<Collector>>;
  // The nested reactors, each on one entity; `entity()` is that.
  class CollInfoSm;
  class UpdateSm;
  class SourceSm;
  class SourceCollSm;
  template <class Key, class Sm>
  using NestedSms = std::map<Key, std::unique_ptr<Sm>>;
  /// Null where there is none.
  template <class Key, class Sm>
  static const Sm* nested_p(const NestedSms<Key, Sm>& sms, const Key& key) {
    const auto it = sms.find(key);
    return it == sms.end() ? nullptr : it->second.get();
  }

  /// `hwFtConfig` may be null, the others not. All sources must be in `dataContainer`: one that
  /// comes or goes later asserts.
  OptionsDataExporterSm(const std::string& expName, const std::string& ftName, FtId ftId,
                        Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                        Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                        Ptr<ExporterInfo> expInfo, Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                        Ptr<const OptionsDataContainer> dataContainer,
                        Ptr<TaskScheduler> scheduler);
  template <class... A>
  static Ptr<OptionsDataExporterSm> OptionsDataExporterSmIs(A&&... a) {
    return make<OptionsDataExporterSm>(std::forward<A>(a)...);
  }
  ~OptionsDataExporterSm() override;

  const std::string& expName() const { return expName_; }
  const std::string& ftName() const { return ftName_; }
  FtId ftId() const { return ftId_; }
  const Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  const Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig() const { return hwExpConfig_; }
  const Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
  const Ptr<Tarn::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
  const Ptr<const OptionsDataContainer>& dataContainer() const { return dataContainer_; }
  const Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
  const Collectors& collector4() const { return collector4_; }
  Ptr<Collector> collector4(const std::string& name) const { return find(collector4_, name); }
  const Collectors& collector6() const { return collector6_; }
  Ptr<Collector> collector6(const std::string& name) const { return find(collector6_, name); }
  const Collectors& collector() const { return collector_; }
  Ptr<Collector> collector(const std::string& name) const { return find(collector_, name); }
  const NestedSms<std::string, CollInfoSm>& collInfo() const { return collInfo_; }
  const CollInfoSm* collInfo(const std::string& name) const { return nested_p(collInfo_, name); }
  /// Names of collectors that wait for a full resend.
  const std::set<std::string>& collectorUpdate() const { return collectorUpdate_; }
  bool collectorUpdate(const std::string& name) const { return collectorUpdate_.contains(name); }
  const NestedSms<OptionsDataScope, UpdateSm>& updateDataEnt() const { return updateDataEnt_; }
  const UpdateSm* updateDataEnt(OptionsDataScope scope) const {
    return nested_p(updateDataEnt_, scope);
  }
  const NestedSms<OptionsDataScope, SourceCollSm>& scopedDataSource() const {
    return scopedDataSource_;
  }
  const SourceCollSm* scopedDataSource(OptionsDataScope scope) const {
    return nested_p(scopedDataSource_, scope);
  }
  const UpdateQueue::Queues& update() const { return update_.update(); }
  /// Null where nothing of that template waits.
  const UpdateSetQueue* update(TemplateId setId) const {
    const auto it = update().find(setId);
    return it == update().end() ? nullptr : &it->second;
  }
  uint32_t updateQueueBytes() const { return update_.bytes(); }
  /// Seconds; holds from the next change on.
  double updateDataCoalesceTime() const { return updateDataCoalesceTime_.count(); }
  void updateDataCoalesceTimeIs(double seconds) { updateDataCoalesceTime_ = Seconds(seconds); }
  /// In build order; empty before the first full transmission. Exporters that agree on size and
  /// content share the messages.
  const std::vector<Ptr<MessageWrapper>>& msgCache() const { return msgCache_->messages; }
  /// Null behind the last.
  Ptr<MessageWrapper> msgCache(uint32_t index) const {
    return index < msgCacheSize() ? msgCache()[index] : nullptr;
  }
  size_t msgCacheSize() const { return msgCache().size(); }
  bool msgCacheValid() const { return msgCacheValid_; }
  uint32_t msgCacheBuildCount() const { return msgCacheBuildCount_; }
  /// A periodic transmission of the full tables is in progress.
  bool processing() const { return processing_; }
  /// Collectors that full tables are on their way to, periodic or not.
  size_t transmissions() const { return transmission_.size(); }
  bool initialized() const { return initialized_; }
  const TimerTask* updateTask() const { return updateTask_.get(); }
  const TimerTask* collectorUpdateTask() const { return collectorUpdateTask_.get(); }
  const TimerTask* txPeriodicTask() const { return txPeriodicTask_.get(); }
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

  template <class... A>
  void trace_p(std::string_view handler, const A&... what) const;
  std::unique_ptr<TimerTask> task_p(const char* prefix, void (OptionsDataExporterSm::*body)());
  uint16_t maxMsgSize_p() const;
  void handleRetired() override;
  void handleCollInfo(const std::string& name);
  template <class Family>
  void handleCollector_p(Collectors& own, Collectors& other, const std::string& name);
  void collectorDel_p(Collectors& own, Collectors& other, const std::string& name);
  void handleUdpPam_p(const Ptr<UdpPam>& pam, const Collectors& family);
  const UpdateQueue::Queues& updates_p() const { return update(); }
  void initializedIs(bool v) { initialized_ = v; }
  void processingIs(bool v) { processing_ = v; }
  void msgCacheValidIs(bool v) { msgCacheValid_ = v; }
  void msgCacheBuildCountInc(uint32_t n) { msgCacheBuildCount_ += n; }

  void maybeSchedulePeriodic();
  void maybeBeginPeriodicTransmission();
  void maybeBuildMsgCache();
  void sendDataTables();
  void continueTransmissions();
  void endTransmissions_p();
  void sendMessageToCollectors(const Ptr<MessageWrapper>& msgWrap);
  void processCollectorQueue();
  void flushUpdateQueue();
  std::optional<Seconds> updatesHeld_p() const;
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
  Collectors collector4_;
  Collectors collector6_;
  Collectors collector_;
  NestedSms<std::string, CollInfoSm> collInfo_;
  std::set<std::string> collectorUpdate_;
  NestedSms<OptionsDataScope, UpdateSm> updateDataEnt_;
  NestedSms<OptionsDataScope, SourceCollSm> scopedDataSource_;
  UpdateQueue update_;
  Seconds updateDataCoalesceTime_{1.0};
  std::shared_ptr<const BuiltTables> msgCache_ = std::make_shared<const BuiltTables>();
  bool msgCacheValid_ = false;
  uint32_t msgCacheBuildCount_ = 0;
  bool processing_ = false;
  bool initialized_ = false;
  OptionsDataTransmissions transmission_;
  std::vector<UpdateQueue::Update> changedMeanwhile_;
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
