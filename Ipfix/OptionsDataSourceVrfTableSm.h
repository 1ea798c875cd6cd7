#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/OptionsDataExporter.h"
#include "platform/IpfixTypes.h"
#include "platform/Vrf.h"

namespace FlowTracking {

/// Keeps the VRF table in step with the host's VRFs: a record per VRF, and one with an empty name
/// for flows that belong to none.
class TARN_API VrfTableSm final : public Entity {
 public:
  static constexpr TemplateId setId() {
    return Constants::reservedTemplateId(StaticTemplateId::vrfTable);
  }
  static constexpr VrfId noVrf = 0xffffff;

  static Ptr<VrfTableSm> VrfTableSmIs(Ptr<OptionsDataSource> dataSource,
                                      Ptr<OptionsDataUpdate> dataUpdate,
                                      Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus);
  ~VrfTableSm() override;

  const Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  /// The template id under which updates are announced.
  TemplateId setIdVal() const { return setIdVal_; }
  void setIdValIs(TemplateId id) { setIdVal_ = id; }
  const std::string& sourceName() const { return dataSource_->name(); }
  bool initialized() const { return initialized_; }
  size_t dataRecords() const { return dataRecord_.size(); }

  void handleInitialized();
  void handleVrfIndexAll();
  void handleVrfIndex(VrfId vrfId);
  /// Id, then the name behind its length octet; a name has 0 to 254 octets (asserted).
  Ptr<DataRecord> makeDataRecord(VrfId vrfId, const std::string& vrfName) const;

  AttrRows attrRows() const override;

 private:
  class VrfIdMapStatusSm;
  VrfTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
             Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus);

  Ptr<OptionsDataSource> dataSource_;
  Ptr<OptionsDataUpdate> dataUpdate_;
  Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus_;
  std::map<VrfId, Ptr<DataRecord>> dataRecord_;
  bool initialized_ = false;
  TemplateId setIdVal_ = setId();
  std::unique_ptr<VrfIdMapStatusSm> vrfIdMapStatusSm_;
};
TARN_API Ptr<VrfTableSm> vrfTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                           Ptr<OptionsDataUpdate> dataUpdate,
                                           Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus);

}  // namespace FlowTracking
