#include "Ipfix/OptionsDataSourceVrfTableSm.h"

#include <array>
#include <cstring>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace FlowTracking {

class VrfTableSm::VrfIdMapStatusSm final : public Vrf::VrfIdMap::Status::Watcher {
 public:
  explicit VrfIdMapStatusSm(VrfTableSm& sm) : Watcher(sm.vrfIdMapStatus_), sm_(sm) {}
  void handleVrf(VrfId id) override { sm_.handleVrfIndex(id); }

 private:
  VrfTableSm& sm_;
};

VrfTableSm::VrfTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                       Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus)
    : dataSource_(std::move(dataSource)),
      dataUpdate_(std::move(dataUpdate)),
      vrfIdMapStatus_(std::move(vrfIdMapStatus)),
      vrfIdMapStatusSm_(std::make_unique<VrfIdMapStatusSm>(*this)) {
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

void VrfTableSm::handleInitialized() {
  initialized_ = true;
  handleVrfIndexAll();
}
void VrfTableSm::handleVrfIndexAll() {
  trace(TraceLevel::event, "VrfTableSm::", "handleVrfIndexAll",
        " map count:", vrfIdMapStatus_->vrf().size());
  dataSource_->dataRecordDelAll();
  dataSource_->dataRecordIs(makeDataRecord(noVrf, ""));
  for (const auto& [id, name] : vrfIdMapStatus_->vrf()) {
    const auto record = makeDataRecord(id, name.stringValue());
    dataSource_->dataRecordIs(record);
    dataRecord_[id] = record;
  }
  dataSource_->versionInc(1);
}
void VrfTableSm::handleVrfIndex(VrfId vrfId) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  if (auto old = dataRecord_.find(vrfId); old != dataRecord_.end()) {
    dataSource_->dataRecordDel(old->second);
    dataRecord_.erase(old);
  }
  const auto entry = vrfIdMapStatus_->vrf().find(vrfId);
  if (entry == vrfIdMapStatus_->vrf().end()) {
    trace(TraceLevel::event, "VrfTableSm::", "handleVrfIndex ", "vrfIndex: ", vrfId,
          ", name not present. ");
  } else {
    const std::string& name = entry->second.stringValue();
    const auto record = makeDataRecord(vrfId, name);
    trace(TraceLevel::event, "VrfTableSm::", "handleVrfIndex ", "vrfIndex: ", vrfId,
          ", name: ", name, ", record len: ", record->dataLen());
    dataUpdate_->addUpdate(setIdVal_, record);
    dataSource_->dataRecordIs(record);
    dataRecord_[vrfId] = record;
  }
  TARN_ASSERT_AS(dataRecords() + 1 == dataSource_->dataRecords(),
                 "( dataRecords() + 1 ) == dataSource()->dataRecords()");
  dataSource_->versionInc(1);
}

AttrRows VrfTableSm::attrRows() const {
  using S = VrfTableSm;
  static constexpr AttrRow rows[] = {
      childRow<&S::dataSource>("dataSource"),        row<&S::dataRecords>("dataRecords"),
      row<&S::setIdVal, &S::setIdValIs>("setIdVal"), row<&S::sourceName>("sourceName"),
      row<&S::initialized>("initialized"),
  };
  return rows;
}
Ptr<VrfTableSm> VrfTableSm::VrfTableSmIs(Ptr<OptionsDataSource> dataSource,
                                         Ptr<OptionsDataUpdate> dataUpdate,
                                         Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus) {
  return Ptr<VrfTableSm>::adopt(
      new VrfTableSm(std::move(dataSource), std::move(dataUpdate), std::move(vrfIdMapStatus)));
}
Ptr<VrfTableSm> vrfTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                  Ptr<OptionsDataUpdate> dataUpdate,
                                  Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus) {
  return VrfTableSm::VrfTableSmIs(std::move(dataSource), std::move(dataUpdate),
                                  std::move(vrfIdMapStatus));
}

}  // namespace FlowTracking
