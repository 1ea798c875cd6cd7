#pragma once
#include <memory>
#include <string>
#include <string_view>

#include "Ipfix/OptionsDataExporter.h"
#include "platform/FlowTracking.h"
#include "platform/HwFlowTracking.h"
#include "platform/IpfixTypes.h"
#include "platform/TaskScheduler.h"

namespace FlowTracking {

/// Keeps the one record that describes a tracker: its domain, time-outs, sampling and kind. A burst
/// of changes makes one new record.
class TARN_API FlowTrackerTableSm final : public Entity {
 public:
  enum class Param : uint8_t { inactiveTimeout = 0, activeInterval = 1, sampleRate = 2 };

  static constexpr TemplateId setId() {
    return Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable);
  }
  static Ptr<FlowTrackerTableSm> FlowTrackerTableSmIs(
      Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
      Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
      Ptr<const HwFlowTracking::FtStatus> hwFtStatus, FlowTrackingType ftrType,
      Ptr<TaskScheduler> taskScheduler);
  ~FlowTrackerTableSm() override;

  const Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  /// The template id under which updates are announced.
  TemplateId setIdVal() const { return setIdVal_; }
  void setIdValIs(TemplateId id) { setIdVal_ = id; }
  const std::string& sourceName() const { return dataSource_->name(); }
  bool initialized() const { return initialized_; }
  /// Seconds from a change to the record that tells of it.
  double updateDelay() const { return updateDelay_.count(); }
  void updateDelayIs(double seconds) { updateDelay_ = Seconds(seconds); }

  void handleInitialized();
  void handleParamChange(Param param);
  void doUpdate();
  /// Time-outs must be below 65535 s and the name below 255 octets (asserted).
  Ptr<DataRecord> makeDataRecord() const;

  AttrRows attrRows() const override;

 private:
  class HwStatusSm;
  class HwFtStatusSm;
  FlowTrackerTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                     Ptr<const HwFlowTracking::Status> hwStatus,
                     Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                     Ptr<const HwFlowTracking::FtStatus> hwFtStatus, FlowTrackingType ftrType,
                     Ptr<TaskScheduler> taskScheduler);
  /// The tracker's own rate, or else the one of the whole tracking side.
  uint32_t sampleRate_p() const;

  Ptr<OptionsDataSource> dataSource_;
  Ptr<OptionsDataUpdate> dataUpdate_;
  Ptr<const HwFlowTracking::Status> hwStatus_;
  Ptr<const HwFlowTracking::FtConfig> hwFtConfig_;
  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  FlowTrackingType ftrType_;
  Ptr<TaskScheduler> taskScheduler_;
  Seconds updateDelay_{2.0};
  TemplateId setIdVal_ = setId();
  bool initialized_ = false;
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
