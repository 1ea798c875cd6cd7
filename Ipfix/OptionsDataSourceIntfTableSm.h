#pragma once
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/OptionsDataExporter.h"
#include "platform/IpfixTypes.h"

namespace FlowTracking {

/// Keeps the interface table in step with the index map: a record per interface, and one for each
/// of the four pseudo-interfaces. A removal has no form on the wire: collectors learn of it from
/// the next full transmission.
class TARN_API InterfaceTableSm final : public Entity {
 public:
  static constexpr TemplateId setId() {
    return Constants::reservedTemplateId(StaticTemplateId::intfTable);
  }
  static Ptr<InterfaceTableSm> InterfaceTableSmIs(Ptr<OptionsDataSource> dataSource,
                                                  Ptr<OptionsDataUpdate> dataUpdate,
                                                  Ptr<const IntfIndexMap> intfIndexMap);
  ~InterfaceTableSm() override;

  const Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  /// The template id under which updates are announced.
  TemplateId setIdVal() const { return setIdVal_; }
  void setIdValIs(TemplateId id) { setIdVal_ = id; }
  const std::string& sourceName() const { return dataSource_->name(); }
  bool initialized() const { return initialized_; }
  size_t dataRecords() const { return dataRecord_.size(); }

  void handleInitialized();
  void handleIntfId(const IntfId& intfId);
  /// Index, then the name behind its length octet; a name has 1 to 254 octets (asserted).
  Ptr<DataRecord> makeDataRecord(const std::string& intfName, uint32_t index) const;

  AttrRows attrRows() const override;

 private:
  class IntfIndexMapSm;
  struct Kept {
    mutable Ptr<DataRecord> record;  // one of the same name may take its place
  };
  struct ByName {
    using is_transparent = void;
    static std::string_view name(const Kept& k) { return k.record->data().substr(nameOffset); }
    static std::string_view name(std::string_view n) { return n; }
    size_t operator()(const auto& a) const { return std::hash<std::string_view>()(name(a)); }
    bool operator()(const auto& a, const auto& b) const { return name(a) == name(b); }
  };
  static constexpr size_t nameOffset = sizeof(uint32_t) + 1;  // behind index and length
  InterfaceTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                   Ptr<const IntfIndexMap> intfIndexMap);
  void assertCount_p() const;

  Ptr<OptionsDataSource> dataSource_;
  Ptr<OptionsDataUpdate> dataUpdate_;
  Ptr<const IntfIndexMap> intfIndexMap_;
  // By the name that each record holds: a million records want no second copy of it.
  std::unordered_set<Kept, ByName, ByName> dataRecord_;
  bool initialized_ = false;
  TemplateId setIdVal_ = setId();
  std::unique_ptr<IntfIndexMapSm> intfIndexMapSm_;
};
TARN_API Ptr<InterfaceTableSm> interfaceTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                                       Ptr<OptionsDataUpdate> dataUpdate,
                                                       Ptr<const IntfIndexMap> intfIndexMap);

}  // namespace FlowTracking
