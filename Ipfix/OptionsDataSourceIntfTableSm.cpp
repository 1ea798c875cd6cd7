#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "platform/Reactor.h"

#include <array>
#include <cstring>
#include <vector>

namespace FlowTracking {

class InterfaceTableSm::IntfIndexMapSm final
    : public NestedReactor<IntfIndexMap, InterfaceTableSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleIntfIndex(const IntfId& intfId) override { sm_.handleIntfId(intfId); }
};

InterfaceTableSm::InterfaceTableSm(Ptr<OptionsDataSource> dataSource,
                                   Ptr<OptionsDataUpdate> dataUpdate,
                                   Ptr<const IntfIndexMap> intfIndexMap)
    : OptionsDataSourceSm(std::move(dataSource), std::move(dataUpdate), setId()),
      intfIndexMap_(std::move(intfIndexMap)),
      intfIndexMapSm_(std::make_unique<IntfIndexMapSm>(intfIndexMap_, *this)) {
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
      dataRecords() + IntfIndexMap::numReservedIntfs() == dataSource()->dataRecords(),
      "( dataRecords() + intfIndexMap()->numReservedIntfs() ) == dataSource()->dataRecords()");
}
Ptr<DataRecord> InterfaceTableSm::dataRecord(const IntfId& intfId) const {
  const auto own = dataRecord_.find(std::string_view(intfId.stringValue()));
  return own == dataRecord_.end() ? Ptr<DataRecord>() : *own;
}

void InterfaceTableSm::handleInitialized() {
  const auto& interfaces = intfIndexMap_->intfIndex();
  traceOf(TraceLevel::event, "InterfaceTableSm", "handleInitialized", {},
          "map count:", interfaces.size());
  clear_p();
  dataRecord_.clear();
  dataRecord_.reserve(interfaces.size());
  // Short names first: records of one length fill messages of one length, which leave in far fewer
  // sends.
  std::array<std::vector<Ptr<DataRecord>>, IntfIndexMap::nameMax + 1> byNameLen;
  for (const auto& [intfId, index] : interfaces) {
    auto record = makeDataRecord(intfId.stringValue(), index);
    byNameLen[intfId.stringValue().size()].push_back(std::move(record));
  }
  for (const auto& records : byNameLen)
    for (const auto& record : records) store_p(dataRecord_, record, record);
  using Map = IntfIndexMap;
  const std::pair<const char*, uint32_t> reserved[] = {
      {Map::multicastIntfName, Map::multicastIndex},
      {Map::discardIntfName, Map::discardIndex},
      {Map::cpuIntfName, Map::cpuIndex},
      {Map::unknownIntfName, Map::unknownIndex}};
  for (const auto& [name, index] : reserved)
    dataSource()->dataRecordIs(makeDataRecord(name, index));
  finish_p();
}

void InterfaceTableSm::handleIntfId(const IntfId& intfId) {
  renew_p(dataRecord_, std::string_view(intfId.stringValue()), [&]() -> Ptr<DataRecord> {
    const auto entry = intfIndexMap_->intfIndexEntry(intfId);
    if (entry == intfIndexMap_->intfIndex().end()) {
      traceOf(TraceLevel::event, "InterfaceTableSm", "handleIntfId", {},
              "intfId: ", intfId.stringValue(), ", index not present. ");
      return {};
    }
    auto record = makeDataRecord(intfId.stringValue(), entry->second);
    traceOf(TraceLevel::event, "InterfaceTableSm", "handleIntfId", {},
            "intfId: ", intfId.stringValue(), ", index: ", entry->second,
            ", record len: ", record->dataLen());
    return record;
  });
}

bool InterfaceTableSm::recordsFrom_p(const std::string* key, bool behind,
                                     const AttrRow::PartVisitor& visit) const {
  auto own = key ? dataRecord_.find(std::string_view(*key)) : dataRecord_.begin();
  if (key && own == dataRecord_.end()) return false;
  if (key && behind) ++own;
  for (bool more = true; more && own != dataRecord_.end(); ++own)
    more = visit(std::string(ByName::name(*own)), nullptr, toText(*own));
  return true;
}
AttrRows InterfaceTableSm::attrRows() const {
  using S = InterfaceTableSm;
  static constexpr auto rows =
      rowsWith_p({setIdRow_p<S>(), refRow<&S::intfIndexMap_>("intfIndexMap"),
                  row<&S::dataRecords>("dataRecords"), pagedRow<&S::recordsFrom_p>("dataRecord")});
  return rows;
}
Ptr<InterfaceTableSm> interfaceTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                              Ptr<OptionsDataUpdate> dataUpdate,
                                              Ptr<const IntfIndexMap> intfIndexMap) {
  return make<InterfaceTableSm>(std::move(dataSource), std::move(dataUpdate),
                                std::move(intfIndexMap));
}

}  // namespace FlowTracking
