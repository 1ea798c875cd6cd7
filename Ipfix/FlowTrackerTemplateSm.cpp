#include "Ipfix/FlowTrackerTemplateSm.h"

#include "platform/Trace.h"

namespace FlowTracking {

using HwFlowTracking::ExporterConfig;
using HwFlowTracking::FtTemplateEntry;
using ::Ipfix::ElementIdColl;
using ::Ipfix::RecordType;

namespace {
uint32_t nextPosition(const OptionsTemplate::FieldMap& fields) {
  return fields.empty() ? 0 : fields.rbegin()->first + 1;
}
}  // namespace

void updateFieldInfo(const Ptr<ElementIdColl>& eic, FtTemplateEntry* field) {
  TARN_ASSERT_AS(eic->elementIdCollHas(field->fieldId()),
                 "eic->elementIdCollHas( field->fieldId() )");
  const ::Ipfix::ElementId& element = eic->elementIdColl(field->fieldId());
  field->fieldLenIs(static_cast<uint16_t>(element.len()));
  field->enterpriseIeIs(element.enterpriseIe());
}
void addScopeField(const Ptr<ElementIdColl>& elementIdColl,
                   const Ptr<OptionsTemplate>& optionsTemplate, RecordType elementId) {
  updateFieldInfo(elementIdColl, &optionsTemplate->scopeFieldIs(
                                     nextPosition(optionsTemplate->scopeField()), elementId));
}
void addField(const Ptr<ElementIdColl>& elementIdColl, const Ptr<OptionsTemplate>& optionsTemplate,
              RecordType elementId) {
  updateFieldInfo(elementIdColl,
                  &optionsTemplate->fieldIs(nextPosition(optionsTemplate->field()), elementId));
}

// --- FtExporterSm ---

void FtExporterSm::handleInitialized() {
  handleStartup();
  startTemplateCreation_p();
  for (const auto& [id, status] : hwFtStatus_->templateStatus()) handleTemplateStatus(id);
}
void FtExporterSm::handleTemplateStatus(TemplateId templateId) {
  if (auto status = hwFtStatus_->templateStatus(templateId)) {
    templateStatus_[templateId] = std::make_unique<TemplateStatusSm>(std::move(status), *this);
  } else {
    templateStatus_.erase(templateId);
  }
  scheduleTemplateCreation_p();
}

std::vector<TemplateExporterSmBase::TemplateRecord> FtExporterSm::templates_p() const {
  std::vector<TemplateRecord> records;
  for (const auto& [id, sm] : templateStatus_) records.push_back(sm->record());
  return records;
}
void FtExporterSm::checkField_p(const FtTemplateEntry& entry, bool /*scope*/) const {
  const FtTemplateEntry* te = &entry;
  TARN_ASSERT_AS(elementIdColl_->elementIdCollHas(te->fieldId()),
                 "elementIdColl()->elementIdCollHas( te->fieldId() )");
  const ::Ipfix::ElementId& element = elementIdColl_->elementIdColl(te->fieldId());
  TARN_ASSERT_AS(te->enterpriseIe() == element.enterpriseIe(),
                 "te->enterpriseIe() == elementIdColl()->elementIdColl( te->fieldId() )"
                 ".enterpriseIe()");
  traceOf(TraceLevel::detail, "FtExporterSm", "handleTemplateCreationTask", traceId(),
          "Element: ", element.str(), ", elementId: ", te->fieldId().value(),
          ", len: ", te->fieldLen(), ", enterpriseIe: ", te->enterpriseIe());
}

AttrRows FtExporterSm::attrRows() const {
  using E = FtExporterSm;
  static const auto rows = rowsWith_p({
      childRow<&E::hwFtStatus_>("hwFtStatus"),
      childRow<&E::elementIdColl_>("elementIdColl"),
      mapRow<&E::statuses_p>("templateStatus"),
  });
  return rows;
}
Ptr<FtExporterSm> ftExporterSmFactory(const std::string& expName, const std::string& ftName,
                                      FtId ftId, Ptr<const ExporterConfig> hwExpConfig,
                                      Ptr<ExporterInfo> expInfo,
                                      Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                                      Ptr<TaskScheduler> taskScheduler,
                                      Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                      Ptr<ElementIdColl> elementIdColl) {
  return make<FtExporterSm>(expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo),
                            std::move(collStats), std::move(taskScheduler), std::move(hwFtStatus),
                            std::move(elementIdColl));
}

// --- FtTemplateSm ---

class FtTemplateSm::FtConfigSm final
    : public NestedReactor<HwFlowTracking::FtConfig, FtTemplateSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleExpConfig(const std::string& name) override { sm_.handleExporters(name); }
};
class FtTemplateSm::FtInfoSm final : public NestedReactor<FlowTrackerInfo, FtTemplateSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleExpInfo(const std::string& name) override { sm_.handleExporters(name); }
};

FtTemplateSm::FtTemplateSm(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                           Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                           Ptr<FlowTrackerInfo> ftInfo, const TemplateSmContext& context)
    : hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      ftInfo_(std::move(ftInfo)),
      context_(context),
      ftConfigSm_(std::make_unique<FtConfigSm>(hwFtConfig_, *this)),
      ftInfoSm_(std::make_unique<FtInfoSm>(ftInfo_, *this)) {
  handleInitialized();
}
FtTemplateSm::~FtTemplateSm() = default;
void FtTemplateSm::handleRetired() {
  ftExporterSmDelAll();
  optTemplateExporterSmDelAll();
}

void FtTemplateSm::handleInitialized() {
  for (const auto& name : keysOf(hwFtConfig_->expConfig())) handleExporters(name);
  initialized_ = true;
}
void FtTemplateSm::handleExporters(const std::string& exporterName) {
  reconcile_p(ftExporterSm_, exporterName, "FtExporterSm", hwFtStatus_, context_.elementIdColl);
  reconcile_p(optTemplateExporterSm_, exporterName, "OptionsTemplateExporterSm",
              context_.optTemplateConfig);
}
/// `more`: what the child's constructor takes behind the base's arguments.
template <class Child, class... A>
void FtTemplateSm::reconcile_p(ChildMap<Child>& children, const std::string& name,
                               const char* className, const A&... more) {
  const auto say = [&](const char* what, const std::string& of) {
    traceOf(TraceLevel::event, "FtTemplateSm", "handleExporters", hwFtConfig_->ftName(), what,
            className, " for ", of);
  };
  children.reconcile(
      *this, name,
      [this](const Child& sm) {
        return sm.hwExpConfig() == hwFtConfig_->expConfig(sm.expName()) &&
               sm.expInfo() == ftInfo_->expInfo(sm.expName());
      },
      [&](const std::string& of) { say("Deleted ", of); },
      [&](const std::string& of) -> Ptr<Child> {
        const Ptr<const ExporterConfig> config = hwFtConfig_->expConfig(of);
        const auto info = ftInfo_->expInfo(of);
        if (!config || !info) return nullptr;
        auto child = make<Child>(of, hwFtConfig_->ftName(), hwFtConfig_->ftId(), config, info,
                                 context_.collStats, context_.taskScheduler, more...);
        say("Created ", of);
        return child;
      });
}
void FtTemplateSm::clearCounters() {
  // Both template exporters of an exporter count in the same entries.
  for (const auto& name : keysOf(ftExporterSm_.all())) {
    if (const auto sm = ftExporterSm(name)) sm->clearCounters();
    if (const auto sm = optTemplateExporterSm(name)) sm->clearCounters();
  }
}

AttrRows FtTemplateSm::attrRows() const {
  using T = FtTemplateSm;
  static constexpr AttrRow rows[] = {
      childRow<&T::hwFtConfig_>("hwFtConfig"),
      childRow<&T::hwFtStatus_>("hwFtStatus"),
      childRow<&T::ftInfo_>("ftInfo"),
      mapRow<&T::ftExporterSm_>("ftExporterSm"),
      mapRow<&T::optTemplateExporterSm_>("optTemplateExporterSm"),
      row<&T::initialized_>("initialized"),
  };
  return rows;
}
Ptr<FtTemplateSm> ftTemplateSmFactory(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                      Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                      Ptr<FlowTrackerInfo> ftInfo,
                                      const TemplateSmContext& context) {
  return make<FtTemplateSm>(std::move(hwFtConfig), std::move(hwFtStatus), std::move(ftInfo),
                            context);
}

// --- TemplateSm ---

class TemplateSm::ConfigReqSm final : public NestedReactor<ConfigReq, TemplateSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleClearCounters() override { sm_.clearCounters(); }
};
class TemplateSm::ConfigSm final : public NestedReactor<HwFlowTracking::Config, TemplateSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleFtConfig(const std::string& name) override { sm_.handleHwFtStatus(name); }
};
class TemplateSm::StatusSm final : public NestedReactor<HwFlowTracking::Status, TemplateSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleFtStatus(const std::string& name) override { sm_.handleHwFtStatus(name); }
};
class TemplateSm::InfoSm final : public NestedReactor<FlowTrackingInfo, TemplateSm> {
 public:
  using NestedReactor::NestedReactor;
  void handleFtInfo(const std::string& name) override { sm_.handleHwFtStatus(name); }
};

TemplateSm::TemplateSm(Ptr<const ConfigReq> flowTrackingConfigReq,
                       Ptr<const HwFlowTracking::Config> hwConfig,
                       Ptr<const HwFlowTracking::Status> hwStatus,
                       Ptr<FlowTrackingInfo> flowTrackingInfo, Ptr<ElementIdColl> elementIdColl,
                       Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                       Ptr<TaskScheduler> taskScheduler)
    : flowTrackingConfigReq_(std::move(flowTrackingConfigReq)),
      hwConfig_(std::move(hwConfig)),
      hwStatus_(std::move(hwStatus)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      context_{.elementIdColl = std::move(elementIdColl),
               .optTemplateConfig = nullptr,
               .collStats = std::move(collStats),
               .taskScheduler = std::move(taskScheduler)},
      configReqSm_(std::make_unique<ConfigReqSm>(flowTrackingConfigReq_, *this)),
      configSm_(std::make_unique<ConfigSm>(hwConfig_, *this)),
      statusSm_(std::make_unique<StatusSm>(hwStatus_, *this)),
      infoSm_(std::make_unique<InfoSm>(flowTrackingInfo_, *this)) {
  handleInitialized();
}
TemplateSm::~TemplateSm() = default;

void TemplateSm::handleInitialized() {
  initOptTemplateConfig();
  for (const auto& name : keysOf(hwStatus_->ftStatus())) handleHwFtStatus(name);
  initialized_ = true;
}
void TemplateSm::handleHwFtStatus(const std::string& trackerName) {
  const auto say = [](const char* what, const std::string& name) {
    traceOf(TraceLevel::event, "TemplateSm", "handleHwFtStatus", "", what, name);
  };
  ftTemplateSm_.reconcile(
      *this, trackerName,
      [&](const FtTemplateSm& sm) {
        const std::string& name = sm.hwFtConfig()->ftName();
        return sm.hwFtConfig() == hwConfig_->ftConfig(name) &&
               sm.hwFtStatus() == hwStatus_->ftStatus(name) &&
               sm.ftInfo() == flowTrackingInfo_->ftInfo(name);
      },
      [&](const std::string& name) { say("Deleted FtTemplateSm for ", name); },
      [&](const std::string& name) -> Ptr<FtTemplateSm> {
        const auto config = hwConfig_->ftConfig(name);
        const auto status = hwStatus_->ftStatus(name);
        const auto info = flowTrackingInfo_->ftInfo(name);
        if (!config || !status || !info) return nullptr;
        auto sm = make<FtTemplateSm>(config, status, info, context_);
        say("Created FtTemplateSm for ", name);
        return sm;
      });
}

void TemplateSm::initOptTemplateConfig() {
  struct Row {
    const char* name;
    StaticTemplateId id;
    uint32_t scopeField;
    std::vector<uint32_t> fields;
  };
  // Element numbers of the registry; each table's key is its scope (RFC 7011, 3.4.2.1).
  const Row tables[] = {
      {"IntfTable", StaticTemplateId::intfTable, 10, {82}},
      {"VrfTable", StaticTemplateId::vrfTable, 234, {236}},
      {"FlowKey", StaticTemplateId::flowKey, 145, {173}},
      {"FlowTrackerTable",
       StaticTemplateId::flowTrackerTable,
       149,
       {300, 36, 37, 304, 309, 310, 1001}},
  };
  context_.optTemplateConfig = optionsTemplateConfigFactory();
  for (const Row& table : tables) {
    const auto entry = context_.optTemplateConfig->templateEntryIs(
        table.name, Constants::reservedTemplateId(table.id));
    addScopeField(context_.elementIdColl, entry, RecordType(table.scopeField));
    for (const uint32_t field : table.fields)
      addField(context_.elementIdColl, entry, RecordType(field));
  }
  context_.optTemplateConfig->versionInc(1);
}

void TemplateSm::clearCounters() {
  for (const auto& name : keysOf(ftTemplateSm_.all()))
    if (const auto sm = ftTemplateSm(name)) sm->clearCounters();
}

AttrRows TemplateSm::attrRows() const {
  using T = TemplateSm;
  static constexpr AttrRow rows[] = {
      childRow<&T::flowTrackingConfigReq_>("flowTrackingConfigReq"),
      childRow<&T::hwConfig_>("hwConfig"),
      childRow<&T::hwStatus_>("hwStatus"),
      childRow<&T::flowTrackingInfo_>("flowTrackingInfo"),
      childRow<&T::optTemplateConfig>("optTemplateConfig"),
      mapRow<&T::ftTemplateSm_>("ftTemplateSm"),
      row<&T::initialized_>("initialized"),
  };
  return rows;
}
Ptr<TemplateSm> templateSmFactory(Ptr<const ConfigReq> flowTrackingConfigReq,
                                  Ptr<const HwFlowTracking::Config> hwConfig,
                                  Ptr<const HwFlowTracking::Status> hwStatus,
                                  Ptr<FlowTrackingInfo> flowTrackingInfo,
                                  Ptr<ElementIdColl> elementIdColl,
                                  Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                                  Ptr<TaskScheduler> taskScheduler) {
  return make<TemplateSm>(std::move(flowTrackingConfigReq), std::move(hwConfig),
                          std::move(hwStatus), std::move(flowTrackingInfo),
                          std::move(elementIdColl), std::move(collStats), std::move(taskScheduler));
}

}  // namespace FlowTracking
