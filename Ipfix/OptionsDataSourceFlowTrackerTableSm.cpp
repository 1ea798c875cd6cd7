#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"
#include "platform/Reactor.h"

#include <algorithm>
#include <concepts>

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
/// A time-out as it is exported: whole seconds, truncated.
uint16_t wholeSeconds(double seconds) { return static_cast<uint16_t>(std::max(seconds, 0.0)); }
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

class FlowTrackerTableSm::HwStatusSm final
    : public NestedReactor<HwFlowTracking::Status, FlowTrackerTableSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleSampleRate() override {
    if (sm_.hwFtStatus_->sampleRate() == 0) sm_.handleParamChange(Param::sampleRate);
  }
};
class FlowTrackerTableSm::HwFtStatusSm final
    : public NestedReactor<HwFlowTracking::FtStatus, FlowTrackerTableSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleInactiveTimeout() override { sm_.handleParamChange(Param::inactiveTimeout); }
  void handleActiveInterval() override { sm_.handleParamChange(Param::activeInterval); }
  void handleSampleRate() override { sm_.handleParamChange(Param::sampleRate); }
};

FlowTrackerTableSm::FlowTrackerTableSm(Ptr<OptionsDataSource> dataSource,
                                       Ptr<OptionsDataUpdate> dataUpdate,
                                       Ptr<const HwFlowTracking::Status> hwStatus,
                                       Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                       Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                       FlowTrackingType ftrType, Ptr<TaskScheduler> taskScheduler)
    : OptionsDataSourceSm(std::move(dataSource), std::move(dataUpdate), setId()),
      hwStatus_(std::move(hwStatus)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      ftrType_(ftrType),
      taskScheduler_(std::move(taskScheduler)),
      hwStatusSm_(std::make_unique<HwStatusSm>(hwStatus_, *this)),
      hwFtStatusSm_(std::make_unique<HwFtStatusSm>(hwFtStatus_, *this)) {
  handleInitialized();
}
FlowTrackerTableSm::~FlowTrackerTableSm() = default;

Ptr<DataRecord> FlowTrackerTableSm::makeDataRecord() const {
  const double activeInterval = hwFtStatus_->activeInterval().count();
  TARN_ASSERT(activeInterval < 65535.0);
  const double inactiveTimeout = hwFtStatus_->inactiveTimeout().count();
  TARN_ASSERT(inactiveTimeout < 65535.0);
  const uint32_t ownRate = hwFtStatus_->sampleRate();
  const std::string& name = hwFtConfig_->ftName();
  const size_t max = fixedLen + name.size();
  std::string buf(max, '\0');
  size_t pos = 0;
  const auto add = [&](auto value) { addElement(buf.data(), &pos, max, value); };
  add(hwFtConfig_->ftId());
  add(std::string_view(name));
  add(wholeSeconds(activeInterval));
  add(wholeSeconds(inactiveTimeout));
  add(selectorAlgorithm);
  add(samplingSize);
  add(ownRate != 0 ? ownRate : hwStatus_->sampleRate());
  add(static_cast<uint16_t>(ftrType_));
  TARN_ASSERT(pos == max);
  return dataRecordFactory(buf);
}

void FlowTrackerTableSm::handleInitialized() {
  if (!updateTask_)
    updateTask_ = reactorTask(taskScheduler_, "FlowTrackerTableSmUpdate", taskPriority, *this,
                              &FlowTrackerTableSm::doUpdate);
  const auto record = makeDataRecord();
  TARN_ASSERT(record);
  const size_t n = hwFtConfig_->ftName().size();
  const auto field = [&](size_t at, size_t len) {
    return NetNumber{record->data().substr(at, len)};
  };
  traceOf(TraceLevel::event, "FlowTrackerTableSm", "handleInitialized", hwFtConfig_->ftName(),
          "observationDomainId:", field(0, 4),
          ", observationDomainName:", record->data().substr(5, n),
          ", flowActiveTimeout:", field(5 + n, 2), ", flowIdleTimeout:", field(7 + n, 2),
          ", selectorAlgorithm:", field(9 + n, 2), ", samplingSize:", field(11 + n, 4),
          ", samplingPopulation:", field(15 + n, 4), ", flowTrackingType:", field(19 + n, 2));
  clear_p();
  dataSource()->dataRecordIs(record);
  finish_p();
}
void FlowTrackerTableSm::handleParamChange(Param param) {
  traceOf(TraceLevel::event, "FlowTrackerTableSm", "handleParamChange", hwFtConfig_->ftName(), "(",
          param, ") ", "param changed ");
  updateTask_->scheduleLowestIs(updateDelay_);
}
void FlowTrackerTableSm::doUpdate() {
  const auto record = makeDataRecord();
  TARN_ASSERT(record);
  traceOf(TraceLevel::event, "FlowTrackerTableSm", "doUpdate", hwFtConfig_->ftName(), "(",
          setIdVal(), ") ", "record len: ", record->dataLen());
  clear_p();
  dataSource()->dataRecordIs(record);
  announce_p(record);
}

AttrRows FlowTrackerTableSm::attrRows() const {
  using S = FlowTrackerTableSm;
  static constexpr auto rows = rowsWith_p(
      {setIdRow_p<S>(), refRow<&S::hwStatus_>("hwStatus"), refRow<&S::hwFtConfig_>("hwFtConfig"),
       refRow<&S::hwFtStatus_>("hwFtStatus"), row<&S::ftrType>("ftrType"),
       refRow<&S::taskScheduler_>("taskScheduler"), row<&S::updateTask_>("updateTask"),
       row<&S::updateDelay, &S::updateDelayIs>("updateDelay")});
  return rows;
}
Ptr<FlowTrackerTableSm> flowTrackerTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                                  Ptr<OptionsDataUpdate> dataUpdate,
                                                  Ptr<const HwFlowTracking::Status> hwStatus,
                                                  Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                                  Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                                  FlowTrackingType ftrType,
                                                  Ptr<TaskScheduler> taskScheduler) {
  return make<FlowTrackerTableSm>(std::move(dataSource), std::move(dataUpdate), std::move(hwStatus),
                                  std::move(hwFtConfig), std::move(hwFtStatus), ftrType,
                                  std::move(taskScheduler));
}

}  // namespace FlowTracking
