#include "Ipfix/OptionsDataSourceFlowKeySm.h"

#include <array>
#include <ios>
#include <optional>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace FlowTracking {

namespace {
// IANA information elements that tell a template's address family.
constexpr uint32_t sourceIPv4Address = 8;
constexpr uint32_t destinationIPv4Address = 12;
constexpr uint32_t sourceIPv6Address = 27;
constexpr uint32_t destinationIPv6Address = 28;

/// The bit of a key at `position`, as collectors of this system expect it: shifted in 32 bits,
/// modulo 32, and sign-extended to 64, so that bit 31 brings bits 32 to 63 with it.
uint64_t keyBit(uint32_t position) {
  return static_cast<uint64_t>(
      static_cast<int64_t>(static_cast<int32_t>(uint32_t{1} << (position % 32))));
}

/// The indicator, or nothing for a template that mixes families.
std::optional<uint64_t> flowKeyIndicator(const HwFlowTracking::TemplateStatus& status) {
  enum class Family { none, ipv4, ipv6 } family = Family::none;
  uint64_t indicator = 0;
  for (const auto& [position, entry] : status.ftTemplateEntry()) {
    const uint32_t id = entry.fieldId().value();
    Family own = family;
    if (id == sourceIPv4Address || id == destinationIPv4Address) own = Family::ipv4;
    if (id == sourceIPv6Address || id == destinationIPv6Address) own = Family::ipv6;
    if (family != Family::none && own != family) {
      trace(TraceLevel::event, "FlowKeySm::", "makeDataRecord ",
            "templateId: ", status.templateId(), " AF mismatch at field: ", position);
      return std::nullopt;
    }
    family = own;
    if (!entry.flowKey()) continue;
    trace(TraceLevel::detail, "FlowKeySm::", "makeDataRecord ", "TemplateId: ", status.templateId(),
          ", Field: ", position, " is flowKey ");
    indicator |= keyBit(position);
  }
  return indicator;
}
}  // namespace

class FlowKeySm::TemplateStatusSm final : public HwFlowTracking::TemplateStatus::Watcher {
 public:
  TemplateStatusSm(FlowKeySm& sm, Ptr<const HwFlowTracking::TemplateStatus> status)
      : Watcher(std::move(status)), sm_(sm) {}
  void handleGenId() override { sm_.handleTemplate(entity()->templateId()); }

 private:
  FlowKeySm& sm_;
};
class FlowKeySm::HwFtStatusSm final : public HwFlowTracking::FtStatus::Watcher {
 public:
  explicit HwFtStatusSm(FlowKeySm& sm) : Watcher(sm.hwFtStatus_), sm_(sm) {}
  void handleTemplateStatus(TemplateId id) override { sm_.handleTemplateStatus(id); }

 private:
  FlowKeySm& sm_;
};

FlowKeySm::FlowKeySm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                     Ptr<const HwFlowTracking::FtStatus> hwFtStatus)
    : dataSource_(std::move(dataSource)),
      dataUpdate_(std::move(dataUpdate)),
      hwFtStatus_(std::move(hwFtStatus)),
      hwFtStatusSm_(std::make_unique<HwFtStatusSm>(*this)) {
  handleInitialized();
}
FlowKeySm::~FlowKeySm() = default;

Ptr<DataRecord> FlowKeySm::makeDataRecord(TemplateId templateId) const {
  const auto status = hwFtStatus_->templateStatus(templateId);
  if (!status || status->ftTemplateEntry().empty()) return {};
  const auto indicator = flowKeyIndicator(*status);
  if (!indicator) return {};
  std::array<char, 10> buf;
  buf[0] = static_cast<char>(templateId >> 8);
  buf[1] = static_cast<char>(templateId);
  for (size_t i = 0; i < 8; ++i) buf[2 + i] = static_cast<char>(*indicator >> (56 - 8 * i));
  return dataRecordFactory({buf.data(), buf.size()});
}
void FlowKeySm::assertCount_p() const {
  TARN_ASSERT_AS(dataRecords() == dataSource_->dataRecords(),
                 "dataRecords() == dataSource()->dataRecords()");
}

void FlowKeySm::handleInitialized() {
  initialized_ = true;
  trace(TraceLevel::event, "FlowKeySm::", "handleInitialized ",
        "template count: ", hwFtStatus_->templateStatus().size());
  dataSource_->dataRecordDelAll();
  dataRecord_.clear();
  for (const auto& [id, status] : hwFtStatus_->templateStatus()) {
    templateStatus_[id] = std::make_unique<TemplateStatusSm>(*this, status);
    const auto record = makeDataRecord(id);
    if (!record) {
      trace(TraceLevel::event, "FlowKeySm::", "handleInitialized ", "templateId: ", id,
            ", NO record (incomplete template)");
      continue;
    }
    trace(TraceLevel::event, "FlowKeySm::", "handleInitialized ", "templateId: ", id,
          ", record len: ", record->dataLen());
    dataSource_->dataRecordIs(record);
    dataRecord_[id] = record;
  }
  assertCount_p();
  dataSource_->versionInc(1);
}
void FlowKeySm::handleTemplateStatus(TemplateId templateId) {
  if (auto status = hwFtStatus_->templateStatus(templateId)) {
    templateStatus_[templateId] = std::make_unique<TemplateStatusSm>(*this, std::move(status));
    handleTemplate(templateId);
  } else {
    templateStatus_.erase(templateId);
    handleTemplateDel(templateId);
  }
}
void FlowKeySm::handleTemplate(TemplateId templateId) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  if (auto old = dataRecord_.find(templateId); old != dataRecord_.end()) {
    dataSource_->dataRecordDel(old->second);
    dataRecord_.erase(old);
  }
  if (!hwFtStatus_->templateStatus(templateId)) {
    trace(TraceLevel::event, "FlowKeySm::", "handleTemplate ", "templateId: ", templateId,
          ", not present");
  } else if (const auto record = makeDataRecord(templateId)) {
    trace(TraceLevel::event, "FlowKeySm::", "handleTemplate ", "templateId: ", templateId,
          ", flowKey: 0x", std::hex, *flowKeyIndicator(*hwFtStatus_->templateStatus(templateId)),
          std::dec, ", record len: ", record->dataLen());
    dataUpdate_->addUpdate(setIdVal_, record);
    dataSource_->dataRecordIs(record);
    dataRecord_[templateId] = record;
  } else {
    trace(TraceLevel::event, "FlowKeySm::", "handleTemplate ", "templateId: ", templateId,
          ", NO record (incomplete template)");
  }
  assertCount_p();
  dataSource_->versionInc(1);
}

AttrRows FlowKeySm::attrRows() const {
  using S = FlowKeySm;
  static constexpr AttrRow rows[] = {
      childRow<&S::dataSource>("dataSource"),        row<&S::dataRecords>("dataRecords"),
      row<&S::setIdVal, &S::setIdValIs>("setIdVal"), row<&S::sourceName>("sourceName"),
      row<&S::initialized>("initialized"),
  };
  return rows;
}
Ptr<FlowKeySm> FlowKeySm::FlowKeySmIs(Ptr<OptionsDataSource> dataSource,
                                      Ptr<OptionsDataUpdate> dataUpdate,
                                      Ptr<const HwFlowTracking::FtStatus> hwFtStatus) {
  return Ptr<FlowKeySm>::adopt(
      new FlowKeySm(std::move(dataSource), std::move(dataUpdate), std::move(hwFtStatus)));
}
Ptr<FlowKeySm> flowKeySmFactory(Ptr<OptionsDataSource> dataSource,
                                Ptr<OptionsDataUpdate> dataUpdate,
                                Ptr<const HwFlowTracking::FtStatus> hwFtStatus) {
  return FlowKeySm::FlowKeySmIs(std::move(dataSource), std::move(dataUpdate),
                                std::move(hwFtStatus));
}

}  // namespace FlowTracking
