#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"

#include <concepts>
#include <cstring>
#include <ostream>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace FlowTracking {

namespace {
constexpr TaskPriority taskPriority = 2;
constexpr uint16_t selectorAlgorithm = 3;  // random n-out-of-N (IANA PSAMP selector algorithms)
constexpr uint32_t samplingSize = 1;
constexpr size_t fixedLen = 21;

/// Append one value at `*pos` of a buffer of `max` octets, integers in network order.
template <std::unsigned_integral BaseType>
void addElement(char* buf, size_t* pos, size_t max, BaseType v) {
  TARN_ASSERT_AS(*pos + sizeof(BaseType) <= max, "*pos + sizeof( BaseType ) <= max");
  for (int shift = 8 * static_cast<int>(sizeof v) - 8; shift >= 0; shift -= 8)
    buf[(*pos)++] = static_cast<char>(v >> shift);
}
void addElement(char* buf, size_t* pos, size_t max, std::string_view v) {
  const size_t elementLen = v.size();
  TARN_ASSERT(elementLen < 255);
  addElement(buf, pos, max, static_cast<uint8_t>(elementLen));
  TARN_ASSERT(*pos + elementLen <= max);
  const size_t rc = v.copy(buf + *pos, elementLen);
  TARN_ASSERT(rc == elementLen);
  *pos += rc;
}
}  // namespace

std::string stringValue(FlowTrackerTableSm::Param param) {
  switch (param) {
    case FlowTrackerTableSm::Param::inactiveTimeout:
      return "inactiveTimeout";
    case FlowTrackerTableSm::Param::activeInterval:
      return "activeInterval";
    case FlowTrackerTableSm::Param::sampleRate:
      return "sampleRate";
  }
  return std::to_string(static_cast<unsigned>(param));
}
std::ostream& operator<<(std::ostream& out, FlowTrackerTableSm::Param param) {
  return out << stringValue(param);
}

class FlowTrackerTableSm::HwStatusSm final : public HwFlowTracking::Status::Watcher {
 public:
  explicit HwStatusSm(FlowTrackerTableSm& sm) : Watcher(sm.hwStatus_), sm_(sm) {}
  void handleSampleRate() override { sm_.handleParamChange(Param::sampleRate); }

 private:
  FlowTrackerTableSm& sm_;
};
class FlowTrackerTableSm::HwFtStatusSm final : public HwFlowTracking::FtStatus::Watcher {
 public:
  explicit HwFtStatusSm(FlowTrackerTableSm& sm) : Watcher(sm.hwFtStatus_), sm_(sm) {}
  void handleInactiveTimeout() override { sm_.handleParamChange(Param::inactiveTimeout); }
  void handleActiveInterval() override { sm_.handleParamChange(Param::activeInterval); }
  void handleSampleRate() override { sm_.handleParamChange(Param::sampleRate); }

 private:
  FlowTrackerTableSm& sm_;
};

FlowTrackerTableSm::FlowTrackerTableSm(Ptr<OptionsDataSource> dataSource,
                                       Ptr<OptionsDataUpdate> dataUpdate,
                                       Ptr<const HwFlowTracking::Status> hwStatus,
                                       Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                       Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                       FlowTrackingType ftrType, Ptr<TaskScheduler> taskScheduler)
    : dataSource_(std::move(dataSource)),
      dataUpdate_(std::move(dataUpdate)),
      hwStatus_(std::move(hwStatus)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      ftrType_(ftrType),
      taskScheduler_(std::move(taskScheduler)),
      hwStatusSm_(std::make_unique<HwStatusSm>(*this)),
      hwFtStatusSm_(std::make_unique<HwFtStatusSm>(*this)) {
  handleInitialized();
}
FlowTrackerTableSm::~FlowTrackerTableSm() = default;

uint32_t FlowTrackerTableSm::sampleRate_p() const {
  return hwFtStatus_->sampleRate() != 0 ? hwFtStatus_->sampleRate() : hwStatus_->sampleRate();
}

Ptr<DataRecord> FlowTrackerTableSm::makeDataRecord() const {
  const double activeInterval = hwFtStatus_->activeInterval().count();
  TARN_ASSERT(activeInterval < 65535.0);
  const double inactiveTimeout = hwFtStatus_->inactiveTimeout().count();
  TARN_ASSERT(inactiveTimeout < 65535.0);
  const std::string& name = hwFtConfig_->ftName();
  const size_t max = fixedLen + name.size();
  std::string buf(max, '\0');
  size_t pos = 0;
  addElement(buf.data(), &pos, max, hwFtConfig_->ftId());
  addElement(buf.data(), &pos, max, std::string_view(name));
  addElement(buf.data(), &pos, max, static_cast<uint16_t>(activeInterval));
  addElement(buf.data(), &pos, max, static_cast<uint16_t>(inactiveTimeout));
  addElement(buf.data(), &pos, max, selectorAlgorithm);
  addElement(buf.data(), &pos, max, samplingSize);
  addElement(buf.data(), &pos, max, sampleRate_p());
  addElement(buf.data(), &pos, max, static_cast<uint16_t>(ftrType_));
  TARN_ASSERT(pos == max);
  return dataRecordFactory(buf);
}

void FlowTrackerTableSm::handleInitialized() {
  updateTask_ =
      taskScheduler_->timerTask("FlowTrackerTableSmUpdate", taskPriority, [this] { doUpdate(); });
  const auto record = makeDataRecord();
  TARN_ASSERT(record);
  trace(TraceLevel::event, "FlowTrackerTableSm::", "handleInitialized",
        " observationDomainId:", hwFtConfig_->ftId(),
        ", observationDomainName:", hwFtConfig_->ftName(),
        ", flowActiveTimeout:", hwFtStatus_->activeInterval().count(),
        ", flowIdleTimeout:", hwFtStatus_->inactiveTimeout().count(),
        ", selectorAlgorithm:", selectorAlgorithm, ", samplingSize:", samplingSize,
        ", samplingPopulation:", sampleRate_p(),
        ", flowTrackingType:", static_cast<uint16_t>(ftrType_));
  dataSource_->dataRecordDelAll();
  dataSource_->dataRecordIs(record);
  dataSource_->versionInc(1);
  initialized_ = true;
}
void FlowTrackerTableSm::handleParamChange(Param param) {
  trace(TraceLevel::event, "FlowTrackerTableSm::", "handleParamChange", "(", param, ") ",
        "param changed ");
  updateTask_->scheduleLowestIs(updateDelay_);
}
void FlowTrackerTableSm::doUpdate() {
  const auto record = makeDataRecord();
  TARN_ASSERT(record);
  trace(TraceLevel::event, "FlowTrackerTableSm::", "doUpdate", "(", hwFtConfig_->ftName(), ") ",
        "record len: ", record->dataLen());
  dataUpdate_->addUpdate(setIdVal_, record);
  dataSource_->dataRecordDelAll();
  dataSource_->dataRecordIs(record);
  dataSource_->versionInc(1);
}

AttrRows FlowTrackerTableSm::attrRows() const {
  using S = FlowTrackerTableSm;
  static constexpr AttrRow rows[] = {
      childRow<&S::dataSource>("dataSource"),
      row<&S::setIdVal, &S::setIdValIs>("setIdVal"),
      row<&S::sourceName>("sourceName"),
      row<&S::updateDelay, &S::updateDelayIs>("updateDelay"),
      row<&S::initialized>("initialized"),
  };
  return rows;
}
Ptr<FlowTrackerTableSm> FlowTrackerTableSm::FlowTrackerTableSmIs(
    Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
    Ptr<const HwFlowTracking::Status> hwStatus, Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, FlowTrackingType ftrType,
    Ptr<TaskScheduler> taskScheduler) {
  return Ptr<FlowTrackerTableSm>::adopt(new FlowTrackerTableSm(
      std::move(dataSource), std::move(dataUpdate), std::move(hwStatus), std::move(hwFtConfig),
      std::move(hwFtStatus), ftrType, std::move(taskScheduler)));
}
Ptr<FlowTrackerTableSm> flowTrackerTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                                  Ptr<OptionsDataUpdate> dataUpdate,
                                                  Ptr<const HwFlowTracking::Status> hwStatus,
                                                  Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                                  Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                                  FlowTrackingType ftrType,
                                                  Ptr<TaskScheduler> taskScheduler) {
  return FlowTrackerTableSm::FlowTrackerTableSmIs(
      std::move(dataSource), std::move(dataUpdate), std::move(hwStatus), std::move(hwFtConfig),
      std::move(hwFtStatus), ftrType, std::move(taskScheduler));
}

}  // namespace FlowTracking
