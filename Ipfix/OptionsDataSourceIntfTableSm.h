#pragma once
#include <map>
#include <memory>
#include <string>

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
  InterfaceTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                   Ptr<const IntfIndexMap> intfIndexMap);
  void assertCount_p() const;

  Ptr<OptionsDataSource> dataSource_;
  Ptr<OptionsDataUpdate> dataUpdate_;
  Ptr<const IntfIndexMap> intfIndexMap_;
  std::map<IntfId, Ptr<DataRecord>> dataRecord_;
  bool initialized_ = false;
  TemplateId setIdVal_ = setId();
  std::unique_ptr<IntfIndexMapSm> intfIndexMapSm_;
};
TARN_API Ptr<InterfaceTableSm> interfaceTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                                       Ptr<OptionsDataUpdate> dataUpdate,
                                                       Ptr<const IntfIndexMap> intfIndexMap);

}  // namespace FlowTracking
