#include "Ipfix/OptionsDataSourceVrfTableSm.h"
#include "platform/Reactor.h"

#include <array>
#include <cstring>

namespace FlowTracking {

class VrfTableSm::VrfIdMapStatusSm final : public NestedReactor<Vrf::VrfIdMap::Status, VrfTableSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleVrf(VrfId id) override { sm_.handleVrfIndex(id); }
};

VrfTableSm::VrfTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                       Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus)
    : OptionsDataSourceSm(std::move(dataSource), std::move(dataUpdate), setId()),
      vrfIdMapStatus_(std::move(vrfIdMapStatus)),
      vrfIdMapStatusSm_(std::make_unique<VrfIdMapStatusSm>(vrfIdMapStatus_, *this)) {
  handleInitialized();
}
VrfTableSm::~VrfTableSm() = default;

Ptr<DataRecord> VrfTableSm::makeDataRecord(VrfId vrfId, const std::string& vrfName) const {
  const size_t vrfNameLen = vrfName.size();
  TARN_ASSERT_AS(vrfNameLen < 255, "vrfName.bytes() < 255");
  std::array<char, sizeof(uint32_t) + 1 + 254> buf;
  const size_t max = sizeof(uint32_t) + 1 + vrfNameLen;
  size_t pos = 0;
  TARN_ASSERT_AS(pos + sizeof(uint32_t) < max, "pos + sizeof( U32 ) < max");
  for (int shift = 24; shift >= 0; shift -= 8) buf[pos++] = static_cast<char>(vrfId >> shift);
  // Not strictly below: a VRF's name may be empty.
  TARN_ASSERT_AS(pos + sizeof(uint8_t) <= max, "pos + sizeof( vrfNameLen ) <= max");
  buf[pos++] = static_cast<char>(vrfNameLen);
  TARN_ASSERT(pos + vrfNameLen == max);
  std::memcpy(buf.data() + pos, vrfName.data(), vrfNameLen);
  pos += vrfNameLen;
  TARN_ASSERT(pos == max);
  return dataRecordFactory({buf.data(), max});
}
void VrfTableSm::assertCount_p() const {
  TARN_ASSERT_AS(dataRecords() + 1 == dataSource()->dataRecords(),
                 "( dataRecords() + 1 ) == dataSource()->dataRecords()");
}

void VrfTableSm::handleInitialized() { handleVrfIndexAll(); }
void VrfTableSm::handleVrfIndexAll() {
  traceOf(TraceLevel::event, "VrfTableSm", "handleVrfIndexAll", {},
          "map count:", vrfIdMapStatus_->vrf().size());
  clear_p();
  // A watcher of the status that hears of a removal before this table may ask for the rebuild.
  std::erase_if(dataRecord_,
                [this](const auto& own) { return !vrfIdMapStatus_->vrf().contains(own.first); });
  dataSource()->dataRecordIs(makeDataRecord(noVrf, ""));
  for (const auto& [id, name] : vrfIdMapStatus_->vrf())
    store_p(dataRecord_, id, makeDataRecord(id, name.stringValue()));
  finish_p();
}
void VrfTableSm::handleVrfIndex(VrfId vrfId) {
  renew_p(dataRecord_, vrfId, [&]() -> Ptr<DataRecord> {
    const auto entry = vrfIdMapStatus_->vrf().find(vrfId);
    if (entry == vrfIdMapStatus_->vrf().end()) {
      traceOf(TraceLevel::event, "VrfTableSm", "handleVrfIndex", {}, "vrfIndex: ", vrfId,
              ", name not present. ");
      return {};
    }
    const std::string& name = entry->second.stringValue();
    auto record = makeDataRecord(vrfId, name);
    traceOf(TraceLevel::event, "VrfTableSm", "handleVrfIndex", {}, "vrfIndex: ", vrfId,
            ", name: ", name, ", record len: ", record->dataLen());
    return record;
  });
}

AttrRows VrfTableSm::attrRows() const {
  using S = VrfTableSm;
  static constexpr auto rows =
      rowsWith_p({setIdRow_p<S>(), refRow<&S::vrfIdMapStatus_>("vrfIdMapStatus"),
                  row<&S::dataRecords>("dataRecords"), mapRow<&S::dataRecord_>("dataRecord")});
  return rows;
}
Ptr<VrfTableSm> vrfTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                  Ptr<OptionsDataUpdate> dataUpdate,
                                  Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus) {
  return make<VrfTableSm>(std::move(dataSource), std::move(dataUpdate), std::move(vrfIdMapStatus));
}

}  // namespace FlowTracking
