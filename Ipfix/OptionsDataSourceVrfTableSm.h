#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/OptionsDataSourceSm.h"
#include "platform/Vrf.h"

namespace FlowTracking {

/// Keeps the VRF table in step with the host's VRFs: a record per VRF, and one with an empty name
/// for flows that belong to none.
class TARN_API VrfTableSm final : public OptionsDataSourceSm {
 public:
  static constexpr TemplateId setId() {
    return Constants::reservedTemplateId(StaticTemplateId::vrfTable);
  }
  static constexpr VrfId noVrf = 0xffffff;

  VrfTableSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
             Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus);
  ~VrfTableSm() override;
  template <class... A>
  static Ptr<VrfTableSm> VrfTableSmIs(A&&... a) {
    return make<VrfTableSm>(std::forward<A>(a)...);
  }

  const Ptr<const Vrf::VrfIdMap::Status>& vrfIdMapStatus() const { return vrfIdMapStatus_; }
  /// The records of the VRFs, without the reserved one.
  const std::map<VrfId, Ptr<DataRecord>>& dataRecord() const { return dataRecord_; }
  Ptr<DataRecord> dataRecord(VrfId id) const { return find(dataRecord_, id); }
  size_t dataRecords() const { return dataRecord_.size(); }

  void handleInitialized();
  void handleVrfIndexAll();
  void handleVrfIndex(VrfId vrfId);
  /// Id, then the name behind its length octet; a name has 0 to 254 octets (asserted).
  Ptr<DataRecord> makeDataRecord(VrfId vrfId, const std::string& vrfName) const;

  AttrRows attrRows() const override;

 private:
  class VrfIdMapStatusSm;
  void assertCount_p() const override;

  Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus_;
  std::map<VrfId, Ptr<DataRecord>> dataRecord_;
  std::unique_ptr<VrfIdMapStatusSm> vrfIdMapStatusSm_;
};
TARN_API Ptr<VrfTableSm> vrfTableSmFactory(Ptr<OptionsDataSource> dataSource,
                                           Ptr<OptionsDataUpdate> dataUpdate,
                                           Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus);

}  // namespace FlowTracking
