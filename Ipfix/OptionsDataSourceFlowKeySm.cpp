#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "platform/Reactor.h"

#include <array>
#include <ios>

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

enum class Family { none, ipv4, ipv6 };

/// The address family of an element, or none.
Family familyOf(uint32_t element) {
  if (element == sourceIPv4Address || element == destinationIPv4Address) return Family::ipv4;
  if (element == sourceIPv6Address || element == destinationIPv6Address) return Family::ipv6;
  return Family::none;
}
}  // namespace

class FlowKeySm::TemplateStatusSm final
    : public NestedReactor<HwFlowTracking::TemplateStatus, FlowKeySm> {
 public:
  using NestedReactor::NestedReactor;
  void handleGenId() override { sm_.handleTemplate(entity()->templateId()); }
};
class FlowKeySm::HwFtStatusSm final : public NestedReactor<HwFlowTracking::FtStatus, FlowKeySm> {
 public:
  using NestedReactor::NestedReactor;
  void handleTemplateStatus(TemplateId id) override { sm_.handleTemplateStatus(id); }
};

FlowKeySm::FlowKeySm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                     Ptr<const HwFlowTracking::FtStatus> hwFtStatus)
    : OptionsDataSourceSm(std::move(dataSource), std::move(dataUpdate), setId()),
      hwFtStatus_(std::move(hwFtStatus)),
      hwFtStatusSm_(std::make_unique<HwFtStatusSm>(hwFtStatus_, *this)) {
  handleInitialized();
}
FlowKeySm::~FlowKeySm() = default;

Ptr<DataRecord> FlowKeySm::makeDataRecord(TemplateId templateId) const {
  const auto status = hwFtStatus_->templateStatus(templateId);
  if (!status || status->ftTemplateEntry().empty()) return {};
  Family family = Family::none;
  uint64_t indicator = 0;
  for (const auto& [position, entry] : status->ftTemplateEntry()) {
    if (const Family own = familyOf(entry.fieldId().value()); own != Family::none) {
      if (family != Family::none && own != family) {
        traceOf(TraceLevel::event, "FlowKeySm", "makeDataRecord", hwFtStatus_->name(),
                "templateId: ", templateId, " AF mismatch at field: ", position);
        return {};
      }
      family = own;
    }
    if (!entry.flowKey()) continue;
    traceOf(TraceLevel::detail, "FlowKeySm", "makeDataRecord", hwFtStatus_->name(),
            "TemplateId: ", templateId, ", Field: ", position, " is flowKey ");
    indicator |= keyBit(position);
  }
  std::array<char, 10> buf;
  buf[0] = static_cast<char>(templateId >> 8);
  buf[1] = static_cast<char>(templateId);
  for (size_t i = 0; i < 8; ++i) buf[2 + i] = static_cast<char>(indicator >> (56 - 8 * i));
  return dataRecordFactory({buf.data(), buf.size()});
}
void FlowKeySm::assertCount_p() const {
  TARN_ASSERT_AS(dataRecords() == dataSource()->dataRecords(),
                 "dataRecords() == dataSource()->dataRecords()");
}

void FlowKeySm::handleInitialized() {
  const auto say = [this](const auto&... parts) {
    traceOf(TraceLevel::event, "FlowKeySm", "handleInitialized", hwFtStatus_->name(), parts...);
  };
  say("template count: ", hwFtStatus_->templateStatus().size());
  clear_p();
  dataRecord_.clear();
  templateStatus_.clear();
  for (const auto& [id, status] : hwFtStatus_->templateStatus()) {
    templateStatusIs(id, status);
    if (const auto record = makeDataRecord(id)) {
      say("templateId: ", id, ", record len: ", record->dataLen());
      store_p(dataRecord_, id, record);
    } else {
      say("templateId: ", id, ", NO record (incomplete template)");
    }
  }
  finish_p();
}
void FlowKeySm::templateStatusIs(TemplateId templateId,
                                 const Ptr<HwFlowTracking::TemplateStatus>& status) {
  templateStatus_[templateId] = std::make_unique<TemplateStatusSm>(status, *this);
}
void FlowKeySm::handleTemplateStatus(TemplateId templateId) {
  if (const auto status = hwFtStatus_->templateStatus(templateId)) {
    templateStatusIs(templateId, status);
    handleTemplate(templateId);
  } else {
    templateStatus_.erase(templateId);
    handleTemplateDel(templateId);
  }
}
void FlowKeySm::handleTemplate(TemplateId templateId) {
  renew_p(dataRecord_, templateId, [&] {
    const auto say = [&](const auto&... parts) {
      traceOf(TraceLevel::event, "FlowKeySm", "handleTemplate", hwFtStatus_->name(),
              "templateId: ", templateId, parts...);
    };
    auto record = makeDataRecord(templateId);
    if (record) {
      say(", flowKey: 0x", std::hex, NetNumber{record->data().substr(2)}, std::dec,
          ", record len: ", record->dataLen());
    } else {
      say(hwFtStatus_->templateStatus(templateId) ? ", NO record (incomplete template)"
                                                  : ", not present");
    }
    return record;
  });
}

AttrRows FlowKeySm::attrRows() const {
  using S = FlowKeySm;
  static constexpr auto rows =
      rowsWith_p({setIdRow_p<S>(), refRow<&S::hwFtStatus_>("hwFtStatus"),
                  row<&S::dataRecords>("dataRecords"), mapRow<&S::dataRecord_>("dataRecord")});
  return rows;
}
Ptr<FlowKeySm> flowKeySmFactory(Ptr<OptionsDataSource> dataSource,
                                Ptr<OptionsDataUpdate> dataUpdate,
                                Ptr<const HwFlowTracking::FtStatus> hwFtStatus) {
  return make<FlowKeySm>(std::move(dataSource), std::move(dataUpdate), std::move(hwFtStatus));
}

}  // namespace FlowTracking
