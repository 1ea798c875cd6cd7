#include "Ipfix/FlowTrackerTemplateSm.h"

#include "Ipfix/MessageBuilder.h"
#include "platform/Trace.h"

namespace FlowTracking {

using HwFlowTracking::FtTemplateEntry;
using HwFlowTracking::TemplateStatus;
using ::Ipfix::ElementIdColl;
using ::Ipfix::IpfixConst;
using ::Ipfix::RecordType;

namespace {
constexpr TaskPriority taskPriority = 2;
constexpr uint32_t templateRecordHeaderLen = 4;

void updateFieldInfo(const Ptr<ElementIdColl>& eic, FtTemplateEntry* field) {
  TARN_ASSERT_AS(eic->elementIdCollHas(field->fieldId()),
                 "eic->elementIdCollHas( field->fieldId() )");
  const ::Ipfix::ElementId& element = eic->elementIdColl(field->fieldId());
  field->fieldLenIs(static_cast<uint16_t>(element.len()));
  field->enterpriseIeIs(element.enterpriseIe());
}
uint32_t nextPosition(const OptionsTemplate::FieldMap& fields) {
  return fields.empty() ? 0 : fields.rbegin()->first + 1;
}
}  // namespace

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

class FtExporterSm::FtStatusSm final : public HwFlowTracking::FtStatus::Watcher {
 public:
  explicit FtStatusSm(FtExporterSm& sm) : Watcher(sm.hwFtStatus_), sm_(sm) {}
  void handleTemplateStatus(TemplateId id) override { sm_.handleTemplateStatus(id); }

 private:
  FtExporterSm& sm_;
};
class FtExporterSm::TemplateStatusSm final : public TemplateStatus::Watcher {
 public:
  TemplateStatusSm(FtExporterSm& sm, Ptr<const TemplateStatus> status)
      : Watcher(std::move(status)), sm_(sm) {}
  void handleGenId() override { sm_.templateCreationTask_->scheduleIs(Seconds(0)); }

 private:
  FtExporterSm& sm_;
};

FtExporterSm::FtExporterSm(const std::string& expName, const std::string& ftName, FtId ftId,
                           Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                           Ptr<ExporterInfo> expInfo,
                           Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                           Ptr<TaskScheduler> taskScheduler,
                           Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                           Ptr<ElementIdColl> elementIdColl)
    : TemplateExporterSmBase(expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo),
                             std::move(collStats), std::move(taskScheduler)),
      hwFtStatus_(std::move(hwFtStatus)),
      elementIdColl_(std::move(elementIdColl)),
      ftStatusSm_(std::make_unique<FtStatusSm>(*this)) {
  handleInitialized();
}
FtExporterSm::~FtExporterSm() = default;

std::string FtExporterSm::taskPrefix() const { return "ftExporterSm"; }
uint16_t FtExporterSm::headerSetId() const { return IpfixConst::templateSetId(); }

void FtExporterSm::handleInitialized() {
  handleStartup();
  templateCreationTask_ = taskScheduler_->timerTask(
      taskName_p("TemplateCreationTask"), taskPriority, [this] { handleTemplateCreationTask(); });
  initialized_ = true;
  for (const auto& [id, status] : hwFtStatus_->templateStatus()) handleTemplateStatus(id);
  templateCreationTask_->scheduleIs(Seconds(0));
}
void FtExporterSm::handleTemplateStatus(TemplateId templateId) {
  if (auto status = hwFtStatus_->templateStatus(templateId)) {
    templateStatus_[templateId] = std::make_unique<TemplateStatusSm>(*this, std::move(status));
  } else {
    templateStatus_.erase(templateId);
  }
  templateCreationTask_->scheduleIs(Seconds(0));
}

uint32_t FtExporterSm::getTemplateLength(const TemplateStatus& status) {
  uint32_t len = templateRecordHeaderLen;
  for (const auto& [position, entry] : status.ftTemplateEntry()) len += entry.specifierLen();
  return len;
}
bool FtExporterSm::current() const {
  return templateReady() && !templateCreationTask_->scheduled();
}
uint32_t FtExporterSm::getFtTemplateLength() const {
  uint32_t len = 0;
  for (const auto& [id, sm] : templateStatus_) len += getTemplateLength(*sm->entity());
  return len;
}

void FtExporterSm::handleTemplateCreationTask() {
  const auto say = [this](const auto&... what) {
    trace(TraceLevel::detail, "FtExporterSm::", "handleTemplateCreationTask ", traceId(), " ",
          what...);
  };
  if (!templateCreationTask_->running()) {
    say("Returning because templateCreationTask not running.");
    return;
  }
  templateLenDelAll();
  if (!startMessage_p(getFtTemplateLength())) {
    say("Returning because no flow group configured.");
    return;
  }
  uint32_t offset = 0;
  for (const auto& [id, sm] : templateStatus_) {
    const TemplateStatus& status = *sm->entity();
    templateLenIs(id, getTemplateLength(status));
    TemplateHeader header(templatePkt(), offset);
    header.templateIdIs(id);
    header.fieldCountIs(static_cast<uint16_t>(status.ftTemplateEntry().size()));
    offset += templateRecordHeaderLen;
    for (const auto& [position, entry] : status.ftTemplateEntry()) {
      const FtTemplateEntry* te = &entry;
      TARN_ASSERT_AS(elementIdColl_->elementIdCollHas(te->fieldId()),
                     "elementIdColl()->elementIdCollHas( te->fieldId() )");
      const ::Ipfix::ElementId& element = elementIdColl_->elementIdColl(te->fieldId());
      TARN_ASSERT_AS(te->enterpriseIe() == element.enterpriseIe(),
                     "te->enterpriseIe() == elementIdColl()->elementIdColl( te->fieldId() )"
                     ".enterpriseIe()");
      say("Element: ", element.str(), ", elementId: ", te->fieldId().value(),
          ", len: ", te->fieldLen(), ", enterpriseIe: ", te->enterpriseIe());
      offset = addTemplateFieldSpecifier(templatePkt(), offset, entry);
    }
  }
  templatePktTemplateCountIs(static_cast<uint16_t>(templateStatus_.size()));
  finishMessage();
}

Ptr<FtExporterSm> FtExporterSm::FtExporterSmIs(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<ElementIdColl> elementIdColl) {
  return Ptr<FtExporterSm>::adopt(new FtExporterSm(
      expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo), std::move(collStats),
      std::move(taskScheduler), std::move(hwFtStatus), std::move(elementIdColl)));
}
Ptr<FtExporterSm> ftExporterSmFactory(
    const std::string& expName, const std::string& ftName, FtId ftId,
    Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig, Ptr<ExporterInfo> expInfo,
    Ptr<Tarn::Ipfix::CollectorStatistics> collStats, Ptr<TaskScheduler> taskScheduler,
    Ptr<const HwFlowTracking::FtStatus> hwFtStatus, Ptr<ElementIdColl> elementIdColl) {
  return FtExporterSm::FtExporterSmIs(
      expName, ftName, ftId, std::move(hwExpConfig), std::move(expInfo), std::move(collStats),
      std::move(taskScheduler), std::move(hwFtStatus), std::move(elementIdColl));
}

// --- FtTemplateSm ---

class FtTemplateSm::FtConfigSm final : public HwFlowTracking::FtConfig::Watcher {
 public:
  explicit FtConfigSm(FtTemplateSm& sm) : Watcher(sm.hwFtConfig_), sm_(sm) {}
  void handleExpConfig(const std::string& name) override { sm_.handleExporters(name); }

 private:
  FtTemplateSm& sm_;
};
class FtTemplateSm::FtInfoSm final : public FlowTrackerInfo::Watcher {
 public:
  explicit FtInfoSm(FtTemplateSm& sm) : Watcher(sm.ftInfo_), sm_(sm) {}
  void handleExpInfo(const std::string& name) override { sm_.handleExporters(name); }

 private:
  FtTemplateSm& sm_;
};

FtTemplateSm::FtTemplateSm(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                           Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                           Ptr<FlowTrackerInfo> ftInfo, const TemplateSmContext& context)
    : hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      ftInfo_(std::move(ftInfo)),
      context_(context),
      ftConfigSm_(std::make_unique<FtConfigSm>(*this)),
      ftInfoSm_(std::make_unique<FtInfoSm>(*this)) {
  handleInitialized();
}
FtTemplateSm::~FtTemplateSm() = default;

void FtTemplateSm::handleInitialized() {
  const auto exporters = hwFtConfig_->expConfig();  // a copy: the loop notifies
  for (const auto& [name, config] : exporters) handleExporters(name);
  initialized_ = true;
}
void FtTemplateSm::handleExporters(const std::string& exporterName) {
  const std::string name = exporterName;
  const Ptr<const HwFlowTracking::ExporterConfig> config = hwFtConfig_->expConfig(name);
  const auto info = ftInfo_->expInfo(name);
  const auto say = [&](const char* what) {
    trace(TraceLevel::event, "FtTemplateSm::", "handleExporters ", hwFtConfig_->ftName(), " ", what,
          name);
  };
  if (const auto sm = ftExporterSm(name);
      sm && (sm->hwExpConfig() != config || sm->expInfo() != info)) {
    ftExporterSmDel(name);
    say("Deleted FtExporterSm for ");
    optTemplateExporterSmDel(name);
    say("Deleted OptionsTemplateExporterSm for ");
  }
  if (!config || !info || ftExporterSm(name)) return;
  ftExporterSmIs(name, config, info);
  say("Created FtExporterSm for ");
  optTemplateExporterSmIs(name, config, info);
  say("Created OptionsTemplateExporterSm for ");
}
void FtTemplateSm::ftExporterSmIs(const std::string& name,
                                  const Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig,
                                  const Ptr<ExporterInfo>& expInfo) {
  ftExporterSm_[name] = ftExporterSmFactory(
      name, hwFtConfig_->ftName(), hwFtConfig_->ftId(), hwExpConfig, expInfo, context_.collStats,
      context_.taskScheduler, hwFtStatus_, context_.elementIdColl);
}
void FtTemplateSm::optTemplateExporterSmIs(
    const std::string& name, const Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Ptr<ExporterInfo>& expInfo) {
  optTemplateExporterSm_[name] = optionsTemplateExporterSmFactory(
      name, hwFtConfig_->ftName(), hwFtConfig_->ftId(), hwExpConfig, expInfo, context_.collStats,
      context_.taskScheduler, context_.optTemplateConfig);
}

namespace {
using FtExporterMap = const std::map<std::string, Ptr<FtExporterSm>>& (FtTemplateSm::*)() const;
using FtTemplateMap = const std::map<std::string, Ptr<FtTemplateSm>>& (TemplateSm::*)() const;
}  // namespace

AttrRows FtTemplateSm::attrRows() const {
  static constexpr AttrRow rows[] = {
      mapRow<static_cast<FtExporterMap>(&FtTemplateSm::ftExporterSm)>("ftExporterSm"),
      mapRow<&FtTemplateSm::optTemplateExporterSm>("optTemplateExporterSm"),
      row<&FtTemplateSm::initialized>("initialized"),
  };
  return rows;
}
Ptr<FtTemplateSm> FtTemplateSm::FtTemplateSmIs(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                               Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                               Ptr<FlowTrackerInfo> ftInfo,
                                               const TemplateSmContext& context) {
  return Ptr<FtTemplateSm>::adopt(
      new FtTemplateSm(std::move(hwFtConfig), std::move(hwFtStatus), std::move(ftInfo), context));
}
Ptr<FtTemplateSm> ftTemplateSmFactory(Ptr<const HwFlowTracking::FtConfig> hwFtConfig,
                                      Ptr<const HwFlowTracking::FtStatus> hwFtStatus,
                                      Ptr<FlowTrackerInfo> ftInfo,
                                      const TemplateSmContext& context) {
  return FtTemplateSm::FtTemplateSmIs(std::move(hwFtConfig), std::move(hwFtStatus),
                                      std::move(ftInfo), context);
}

// --- TemplateSm ---

class TemplateSm::ConfigReqSm final : public ConfigReq::Watcher {
 public:
  explicit ConfigReqSm(TemplateSm& sm) : Watcher(sm.flowTrackingConfigReq_), sm_(sm) {}
  void handleClearCounters() override { sm_.clearCounters(); }

 private:
  TemplateSm& sm_;
};
class TemplateSm::ConfigSm final : public HwFlowTracking::Config::Watcher {
 public:
  explicit ConfigSm(TemplateSm& sm) : Watcher(sm.hwConfig_), sm_(sm) {}
  void handleFtConfig(const std::string& name) override { sm_.handleHwFtStatus(name); }

 private:
  TemplateSm& sm_;
};
class TemplateSm::StatusSm final : public HwFlowTracking::Status::Watcher {
 public:
  explicit StatusSm(TemplateSm& sm) : Watcher(sm.hwStatus_), sm_(sm) {}
  void handleFtStatus(const std::string& name) override { sm_.handleHwFtStatus(name); }

 private:
  TemplateSm& sm_;
};
class TemplateSm::InfoSm final : public FlowTrackingInfo::Watcher {
 public:
  explicit InfoSm(TemplateSm& sm) : Watcher(sm.flowTrackingInfo_), sm_(sm) {}
  void handleFtInfo(const std::string& name) override { sm_.handleHwFtStatus(name); }

 private:
  TemplateSm& sm_;
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
      configReqSm_(std::make_unique<ConfigReqSm>(*this)),
      configSm_(std::make_unique<ConfigSm>(*this)),
      statusSm_(std::make_unique<StatusSm>(*this)),
      infoSm_(std::make_unique<InfoSm>(*this)) {
  handleInitialized();
}
TemplateSm::~TemplateSm() = default;

void TemplateSm::handleInitialized() {
  initOptTemplateConfig();
  const auto trackers = hwStatus_->ftStatus();  // a copy: the loop notifies
  for (const auto& [name, status] : trackers) handleHwFtStatus(name);
  initialized_ = true;
}
void TemplateSm::handleHwFtStatus(const std::string& trackerName) {
  const std::string name = trackerName;
  const auto config = hwConfig_->ftConfig(name);
  const auto status = hwStatus_->ftStatus(name);
  const auto info = flowTrackingInfo_->ftInfo(name);
  if (const auto sm = ftTemplateSm(name);
      sm && (sm->hwFtConfig() != config || sm->hwFtStatus() != status || sm->ftInfo() != info)) {
    ftTemplateSmDel(name);
    trace(TraceLevel::event, "TemplateSm::", "handleHwFtStatus ", "Deleted FtTemplateSm for ",
          name);
  }
  if (!config || !status || !info || ftTemplateSm(name)) return;
  ftTemplateSmIs(name, config, status, info);
  trace(TraceLevel::event, "TemplateSm::", "handleHwFtStatus ", "Created FtTemplateSm for ", name);
}
void TemplateSm::ftTemplateSmIs(const std::string& name,
                                const Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                                const Ptr<HwFlowTracking::FtStatus>& hwFtStatus,
                                const Ptr<FlowTrackerInfo>& ftInfo) {
  ftTemplateSm_[name] = ftTemplateSmFactory(hwFtConfig, hwFtStatus, ftInfo, context_);
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
  // Both template exporters of an exporter count in the same entries.
  for (const auto& [tracker, ft] : ftTemplateSm_)
    for (const auto& [exporter, sm] : ft->ftExporterSm()) {
      sm->clearCounters();
      ft->optTemplateExporterSm().at(exporter)->clearCounters();
    }
}

AttrRows TemplateSm::attrRows() const {
  static constexpr AttrRow rows[] = {
      childRow<&TemplateSm::optTemplateConfig>("optTemplateConfig"),
      mapRow<static_cast<FtTemplateMap>(&TemplateSm::ftTemplateSm)>("ftTemplateSm"),
      row<&TemplateSm::initialized>("initialized"),
  };
  return rows;
}
Ptr<TemplateSm> TemplateSm::TemplateSmIs(Ptr<const ConfigReq> flowTrackingConfigReq,
                                         Ptr<const HwFlowTracking::Config> hwConfig,
                                         Ptr<const HwFlowTracking::Status> hwStatus,
                                         Ptr<FlowTrackingInfo> flowTrackingInfo,
                                         Ptr<ElementIdColl> elementIdColl,
                                         Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                                         Ptr<TaskScheduler> taskScheduler) {
  return Ptr<TemplateSm>::adopt(
      new TemplateSm(std::move(flowTrackingConfigReq), std::move(hwConfig), std::move(hwStatus),
                     std::move(flowTrackingInfo), std::move(elementIdColl), std::move(collStats),
                     std::move(taskScheduler)));
}
Ptr<TemplateSm> templateSmFactory(Ptr<const ConfigReq> flowTrackingConfigReq,
                                  Ptr<const HwFlowTracking::Config> hwConfig,
                                  Ptr<const HwFlowTracking::Status> hwStatus,
                                  Ptr<FlowTrackingInfo> flowTrackingInfo,
                                  Ptr<ElementIdColl> elementIdColl,
                                  Ptr<Tarn::Ipfix::CollectorStatistics> collStats,
                                  Ptr<TaskScheduler> taskScheduler) {
  return TemplateSm::TemplateSmIs(std::move(flowTrackingConfigReq), std::move(hwConfig),
                                  std::move(hwStatus), std::move(flowTrackingInfo),
                                  std::move(elementIdColl), std::move(collStats),
                                  std::move(taskScheduler));
}

}  // namespace FlowTracking
