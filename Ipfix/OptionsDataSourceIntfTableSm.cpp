#include "Ipfix/OptionsDataSourceIntfTableSm.h"

#include <array>
#include <cstring>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace FlowTracking {

class InterfaceTableSm::IntfIndexMapSm final : public IntfIndexMap::Watcher {
 public:
  explicit IntfIndexMapSm(InterfaceTableSm& sm) : Watcher(sm.intfIndexMap_), sm_(sm) {}
  void handleIntfIndex(const IntfId& intfId) override { sm_.handleIntfId(intfId); }

 private:
  InterfaceTableSm& sm_;
};

InterfaceTableSm::InterfaceTableSm(Ptr<OptionsDataSource> dataSource,
                                   Ptr<OptionsDataUpdate> dataUpdate,
                                   Ptr<const IntfIndexMap> intfIndexMap)
    : dataSource_(std::move(dataSource)),
      dataUpdate_(std::move(dataUpdate)),
      intfIndexMap_(std::move(intfIndexMap)),
      intfIndexMapSm_(std::make_unique<IntfIndexMapSm>(*this)) {
  handleInitialized();
}
InterfaceTableSm::~InterfaceTableSm() = default;

Ptr<DataRecord> InterfaceTableSm::makeDataRecord(const std::string& intfName,
                                                 uint32_t index) const {
  const size_t intfNameLen = intfName.size();
  TARN_ASSERT(intfNameLen < 255);
  std::array<char, sizeof(uint32_t) + 1 + 254> buf;
  const size_t max = sizeof(uint32_t) + 1 + intfNameLen;
  size_t pos = 0;
  TARN_ASSERT_AS(pos + sizeof(uint32_t) < max, "pos + sizeof( U32 ) < max");
  for (int shift = 24; shift >= 0; shift -= 8) buf[pos++] = static_cast<char>(index >> shift);
  // Strictly below: an interface has a name.
  TARN_ASSERT_AS(pos + sizeof(uint8_t) < max, "pos + sizeof( U8 ) < max");
  buf[pos++] = static_cast<char>(intfNameLen);
  TARN_ASSERT(pos + intfNameLen == max);
  std::memcpy(buf.data() + pos, intfName.data(), intfNameLen);
  pos += intfNameLen;
  TARN_ASSERT(pos == max);
  return dataRecordFactory({buf.data(), max});
}

void InterfaceTableSm::assertCount_p() const {
  TARN_ASSERT_AS(
      dataRecords() + IntfIndexMap::numReservedIntfs() == dataSource_->dataRecords(),
      "( dataRecords() + intfIndexMap()->numReservedIntfs() ) == dataSource()->dataRecords()");
}

void InterfaceTableSm::handleInitialized() {
  initialized_ = true;
  trace(TraceLevel::event, "InterfaceTableSm::", "handleInitialized",
        " map count:", intfIndexMap_->intfIndex().size());
  dataSource_->dataRecordDelAll();
  dataRecord_.clear();
  dataRecord_.reserve(intfIndexMap_->intfIndex().size());
  // Short names first: records of one length fill messages of one length, which leave in far fewer
  // sends.
  std::array<std::vector<Ptr<DataRecord>>, IntfIndexMap::nameMax + 1> byNameLen;
  for (const auto& [intfId, index] : intfIndexMap_->intfIndex()) {
    auto record = makeDataRecord(intfId.stringValue(), index);
    byNameLen[intfId.stringValue().size()].push_back(std::move(record));
  }
  for (auto& records : byNameLen)
    for (auto& record : records) {
      dataSource_->dataRecordIs(record);
      dataRecord_.insert({std::move(record)});
    }
  using Map = IntfIndexMap;
  const std::pair<const char*, uint32_t> reserved[] = {
      {Map::multicastIntfName, Map::multicastIndex},
      {Map::discardIntfName, Map::discardIndex},
      {Map::cpuIntfName, Map::cpuIndex},
      {Map::unknownIntfName, Map::unknownIndex}};
  for (const auto& [name, index] : reserved) dataSource_->dataRecordIs(makeDataRecord(name, index));
  assertCount_p();
  dataSource_->versionInc(1);
}

void InterfaceTableSm::handleIntfId(const IntfId& intfId) {
  TARN_ASSERT_AS(initialized(), "initialized()");
  const std::string_view name = intfId.stringValue();
  const auto known = dataRecord_.find(name);
  if (known != dataRecord_.end()) dataSource_->dataRecordDel(known->record);
  const auto entry = intfIndexMap_->intfIndex().find(intfId);
  if (entry == intfIndexMap_->intfIndex().end()) {
    trace(TraceLevel::event, "InterfaceTableSm::", "handleIntfId ",
          "intfId: ", intfId.stringValue(), ", index not present. ");
    if (known != dataRecord_.end()) dataRecord_.erase(known);
  } else {
    const auto record = makeDataRecord(intfId.stringValue(), entry->second);
    trace(TraceLevel::event, "InterfaceTableSm::", "handleIntfId ",
          "intfId: ", intfId.stringValue(), ", index: ", entry->second,
          ", record len: ", record->dataLen());
    // In place: who changes a million interfaces would search for each once more.
    if (known != dataRecord_.end()) {
      known->record = record;
    } else {
      dataRecord_.insert({record});
    }
    dataUpdate_->addUpdate(setIdVal_, record);
    dataSource_->dataRecordIs(record);
  }
  assertCount_p();
  dataSource_->versionInc(1);
}

AttrRows InterfaceTableSm::attrRows() const {
  using S = InterfaceTableSm;
  static constexpr AttrRow rows[] = {
      childRow<&S::dataSource>("dataSource"),        row<&S::dataRecords>("dataRecords"),
      row<&S::setIdVal, &S::setIdValIs>("setIdVal"), row<&S::sourceName>("sourceName"),
      row<&S::initialized>("initialized"),
  };
  return rows;
}
Ptr<InterfaceTableSm> InterfaceTableSm::InterfaceTableSmIs(Ptr<OptionsDataSource> dataSource,
                                                           Ptr<OptionsDataUpdate> dataUpdate,
                                                           Ptr<const IntfIndexMap> intfIndexMap) {
  return Ptr<InterfaceTableSm>::adopt(
      new InterfaceTableSm(std::move(dataSource), std::move(dataUpdate), std::move(intfIndexMap)));
}
Ptr<InterfaceTableSm> interfaceTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                              Ptr<OptionsDataUpdate> dataUpdate,
                                              Ptr<const IntfIndexMap> intfIndexMap) {
  return InterfaceTableSm::InterfaceTableSmIs(std::move(dataSource), std::move(dataUpdate),
                                              std::move(intfIndexMap));
}

}  // namespace FlowTracking
