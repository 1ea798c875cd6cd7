#pragma once
#include <map>
#include <memory>
#include <string>

#include "Ipfix/OptionsDataExporter.h"
#include "platform/HwFlowTracking.h"
#include "platform/IpfixTypes.h"

namespace FlowTracking {

/// Tells which fields of each of a tracker's data templates are flow keys. A template that mixes
/// address families has no record.
class TARN_API FlowKeySm final : public Entity {
 public:
  static constexpr TemplateId setId() {
    return Constants::reservedTemplateId(StaticTemplateId::flowKey);
  }
  static Ptr<FlowKeySm> FlowKeySmIs(Ptr<OptionsDataSource> dataSource,
                                    Ptr<OptionsDataUpdate> dataUpdate,
                                    Ptr<const HwFlowTracking::FtStatus> hwFtStatus);
  ~FlowKeySm() override;

  const Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  /// The template id under which updates are announced.
  TemplateId setIdVal() const { return setIdVal_; }
  void setIdValIs(TemplateId id) { setIdVal_ = id; }
  const std::string& sourceName() const { return dataSource_->name(); }
  bool initialized() const { return initialized_; }
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
  FlowKeySm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
            Ptr<const HwFlowTracking::FtStatus> hwFtStatus);
  void handleTemplateStatus(TemplateId templateId);
  void assertCount_p() const;

  Ptr<OptionsDataSource> dataSource_;
  Ptr<OptionsDataUpdate> dataUpdate_;
  Ptr<const HwFlowTracking::FtStatus> hwFtStatus_;
  std::map<TemplateId, Ptr<DataRecord>> dataRecord_;
  TemplateId setIdVal_ = setId();
  bool initialized_ = false;
  std::map<TemplateId, std::unique_ptr<TemplateStatusSm>> templateStatus_;
  std::unique_ptr<HwFtStatusSm> hwFtStatusSm_;
};
TARN_API Ptr<FlowKeySm> flowKeySmFactory(Ptr<OptionsDataSource> dataSource,
                                         Ptr<OptionsDataUpdate> dataUpdate,
                                         Ptr<const HwFlowTracking::FtStatus> hwFtStatus);

}  // namespace FlowTracking
