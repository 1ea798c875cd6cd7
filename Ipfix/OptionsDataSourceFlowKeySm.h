#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/OptionsDataSourceSm.h"
#include "platform/HwFlowTracking.h"

namespace FlowTracking {

/// Tells which fields of each of a tracker's data templates are flow keys. A template without
/// fields, or one that mixes address families, has no record.
class TARN_API FlowKeySm final : public OptionsDataSourceSm {
 public:
  static constexpr TemplateId setId() {
    return Constants::reservedTemplateId(StaticTemplateId::flowKey);
  }

  FlowKeySm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
            Ptr<const HwFlowTracking::FtStatus> hwFtStatus);
  ~FlowKeySm() override;
  template <class... A>
  static Ptr<FlowKeySm> FlowKeySmIs(A&&... a) {
    return make<FlowKeySm>(std::forward<A>(a)...);
  }

  const Ptr<const HwFlowTracking::FtStatus>& hwFtStatus() const { return hwFtStatus_; }
  const std::map<TemplateId, Ptr<DataRecord>>& dataRecord() const { return dataRecord_; }
  Ptr<DataRecord> dataRecord(TemplateId id) const { return find(dataRecord_, id); }
  size_t dataRecords() const { return dataRecord_.size(); }

  void handleInitialized();
  /// A template came or changed.
  void handleTemplate(TemplateId templateId);
  /// A template went away.
  void handleTemplateDel(TemplateId templateId) { handleTemplate(templateId); }
  /// The record, or null when the template has none.
  Ptr<DataRecord> makeDataRecord(TemplateId templateId) const;

  AttrRows attrRows() const override;

 private:
  class HwFtStatusSm;
  class TemplateStatusSm;
  void handleTemplateStatus(TemplateId templateId);
  void templateStatusIs(TemplateId templateId, const Ptr<HwFlowTracking::TemplateStatus>& status);
  void assertCount_p() const override;

  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  std::map<TemplateId, Ptr<DataRecord>> dataRecord_;
  std::map<TemplateId, std::unique_ptr<TemplateStatusSm>> templateStatus_;
  std::unique_ptr<HwFtStatusSm> hwFtStatusSm_;
};
TARN_API Ptr<FlowKeySm> flowKeySmFactory(Ptr<OptionsDataSource> dataSource,
                                         Ptr<OptionsDataUpdate> dataUpdate,
                                         Ptr<const HwFlowTracking::FtStatus> hwFtStatus);

}  // namespace FlowTracking
