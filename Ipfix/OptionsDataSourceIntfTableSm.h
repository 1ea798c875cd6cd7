#pragma once
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/OptionsDataSourceSm.h"

namespace FlowTracking {

/// Keeps the interface table in step with the index map: a record per interface, and one for each
/// of the four pseudo-interfaces. A removal has no form on the wire: collectors learn of it from
/// the next full transmission.
class TARN_API InterfaceTableSm final : public OptionsDataSourceSm {
 public:
  static constexpr TemplateId setId() {
    return Constants::reservedTemplateId(StaticTemplateId::intfTable);
  }

  InterfaceTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                   Ptr<const IntfIndexMap> intfIndexMap);
  ~InterfaceTableSm() override;
  template <class... A>
  static Ptr<InterfaceTableSm> InterfaceTableSmIs(A&&... a) {
    return make<InterfaceTableSm>(std::forward<A>(a)...);
  }

  const Ptr<const IntfIndexMap>& intfIndexMap() const { return intfIndexMap_; }
  /// The interface's record, or null. Those of the pseudo-interfaces stand in the source only.
  Ptr<DataRecord> dataRecord(const IntfId& intfId) const;
  /// Visits each interface's record, in no particular order. The visitor must not change the table.
  template <class Visit>
  void eachDataRecord(Visit&& visit) const {
    for (const Ptr<DataRecord>& record : dataRecord_) visit(ByName::name(record), record);
  }
  size_t dataRecords() const { return dataRecord_.size(); }

  void handleInitialized();
  void handleIntfId(const IntfId& intfId);
  /// Index, then the name behind its length octet; a name has 1 to 254 octets (asserted).
  Ptr<DataRecord> makeDataRecord(const std::string& intfName, uint32_t index) const;

  AttrRows attrRows() const override;

 private:
  class IntfIndexMapSm;
  struct ByName {
    using is_transparent = void;
    static std::string_view name(const Ptr<DataRecord>& r) { return r->data().substr(nameOffset); }
    static std::string_view name(std::string_view n) { return n; }
    size_t operator()(const auto& a) const { return std::hash<std::string_view>()(name(a)); }
    bool operator()(const auto& a, const auto& b) const { return name(a) == name(b); }
  };
  static constexpr size_t nameOffset = sizeof(uint32_t) + 1;  // behind index and length
  void assertCount_p() const override;
  bool recordsFrom_p(const std::string* key, bool behind, const AttrRow::PartVisitor& visit) const;

  Ptr<const IntfIndexMap> intfIndexMap_;
  // By the name that each record holds: a million records want no second copy of it.
  std::unordered_set<Ptr<DataRecord>, ByName, ByName> dataRecord_;
  std::unique_ptr<IntfIndexMapSm> intfIndexMapSm_;
};
TARN_API Ptr<InterfaceTableSm> interfaceTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                                       Ptr<OptionsDataUpdate> dataUpdate,
                                                       Ptr<const IntfIndexMap> intfIndexMap);

}  // namespace FlowTracking
