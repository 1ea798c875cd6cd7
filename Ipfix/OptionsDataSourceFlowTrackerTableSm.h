#pragma once
#include <memory>
#include <string>

#include "Ipfix/OptionsDataSourceSm.h"
#include "platform/FlowTracking.h"
#include "platform/HwFlowTracking.h"
#include "platform/TaskScheduler.h"

namespace FlowTracking {

/// Keeps the one record that describes a tracker: its domain, time-outs, sampling and kind. A burst
/// of changes makes one new record.
///
/// The sampling population is the tracker's own `FtStatus::sampleRate`, where that is not 0: a host
/// may sample each of its trackers at a rate of its own. It is `Status::sampleRate` otherwise, and
/// only then does a change of that one make a new record.
class TARN_API FlowTrackerTableSm final : public OptionsDataSourceSm {
 public:
  enum class Param : uint8_t { inactiveTimeout = 0, activeInterval = 1, sampleRate = 2 };

  static constexpr TemplateId setId() {
    return Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable);
  }

  FlowTrackerTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                     Ptr<const HwFlowTracking::Status> hwStatus,
                     Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                     Ptr<const HwFlowTracking::FtStatus> hwFtStatus, FlowTrackingType ftrType,
                     Ptr<TaskScheduler> taskScheduler);
  ~FlowTrackerTableSm() override;
  template <class... A>
  static Ptr<FlowTrackerTableSm> FlowTrackerTableSmIs(A&&... a) {
    return make<FlowTrackerTableSm>(std::forward<A>(a)...);
  }

  const Ptr<const HwFlowTracking::Status>& hwStatus() const { return hwStatus_; }
  const Ptr<const HwFlowTracking::FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  const Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
  FlowTrackingType ftrType() const { return ftrType_; }
  const Ptr<TaskScheduler>& taskScheduler() const { return taskScheduler_; }
  /// Runs `doUpdate`; null once the table was let go.
  const std::unique_ptr<TimerTask>& updateTask() const { return updateTask_; }
  /// Seconds from a change to the record that tells of it.
  double updateDelay() const { return updateDelay_.count(); }
  void updateDelayIs(double seconds) { updateDelay_ = Seconds(seconds); }

  void handleInitialized();
  void handleParamChange(Param param);
  void doUpdate();
  /// Time-outs are exported in whole seconds, truncated, a negative one as 0; they must be below
  /// 65535 s, and the name below 255 octets (asserted).
  Ptr<DataRecord> makeDataRecord() const;

  AttrRows attrRows() const override;

 private:
  class HwStatusSm;
  class HwFtStatusSm;
  void handleRetired() override { updateTaskDel(); }
  void updateTaskDel() { updateTask_.reset(); }

  Ptr<const HwFlowTracking::Status> hwStatus_;
  Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  FlowTrackingType ftrType_;
  Ptr<TaskScheduler> taskScheduler_;
  Seconds updateDelay_{2.0};
  std::unique_ptr<TimerTask> updateTask_;
  std::unique_ptr<HwStatusSm> hwStatusSm_;
  std::unique_ptr<HwFtStatusSm> hwFtStatusSm_;
};
TARN_API std::string stringValue(FlowTrackerTableSm::Param param);
TARN_API std::ostream& operator<<(std::ostream& out, FlowTrackerTableSm::Param param);
TARN_API Ptr<FlowTrackerTableSm> flowTrackerTableSmFactory(
    Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
    Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, FlowTrackingType ftrType,
    Ptr<TaskScheduler> taskScheduler);

}  // namespace FlowTracking
