#include "platform/HwFlowTracking.h"

namespace HwFlowTracking {

AttrRows ExporterConfig::attrRows() const {
  using E = ExporterConfig;
  static constexpr AttrRow rows[] = {
      row<&E::name>("name"),
      row<&E::vrfName, &E::vrfNameIs>("vrfName"),
      row<&E::dscp, &E::dscpIs>("dscp"),
      row<&E::ipfixMtu, &E::ipfixMtuIs>("ipfixMtu"),
      row<&E::templateInterval, &E::templateIntervalIs>("templateInterval"),
      row<&E::rateLimit, &E::rateLimitIs>("rateLimit"),
      row<&E::srcIpAddr, &E::srcIpAddrIs>("srcIpAddr"),
      row<&E::srcIp6Addr, &E::srcIp6AddrIs>("srcIp6Addr"),
      mapRow<&E::collectorIpAndPort>("collectorIpAndPort"),
      mapRow<&E::collectorIp6AndPort>("collectorIp6AndPort"),
      row<&E::exporter4Ready, &E::exporter4ReadyIs>("exporter4Ready"),
      row<&E::exporter6Ready, &E::exporter6ReadyIs>("exporter6Ready"),
      row<&E::rxPort4, &E::rxPort4Is>("rxPort4"),
      row<&E::rxPort6, &E::rxPort6Is>("rxPort6"),
  };
  return rows;
}
Ptr<ExporterConfig> exporterConfigFactory(const std::string& name) {
  return Ptr<ExporterConfig>::adopt(new ExporterConfig(name));
}

AttrRows LocalCollectorConfig::attrRows() const {
  using L = LocalCollectorConfig;
  static constexpr AttrRow rows[] = {
      row<&L::expName, &L::expNameIs>("expName"),
      row<&L::vrfName, &L::vrfNameIs>("vrfName"),
      row<&L::srcIp, &L::srcIpIs>("srcIp"),
      row<&L::srcPort, &L::srcPortIs>("srcPort"),
      row<&L::destIp, &L::destIpIs>("destIp"),
      row<&L::destPort, &L::destPortIs>("destPort"),
      row<&L::dscpValue, &L::dscpValueIs>("dscpValue"),
      row<&L::exporterReady, &L::exporterReadyIs>("exporterReady"),
  };
  return rows;
}
Ptr<LocalCollectorConfig> localCollectorConfigFactory() {
  return Ptr<LocalCollectorConfig>::adopt(new LocalCollectorConfig);
}

namespace {
using ExpConfigMap = const std::map<std::string, Ptr<ExporterConfig>>& (FtConfig::*)() const;
using FtConfigMap = const std::map<std::string, Ptr<FtConfig>>& (Config::*)() const;
using FtStatusMap = const std::map<std::string, Ptr<FtStatus>>& (Status::*)() const;
using TemplateMap =
    const std::map<FlowTracking::TemplateId, Ptr<TemplateStatus>>& (FtStatus::*)() const;
}  // namespace

AttrRows FtConfig::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FtConfig::ftName>("ftName"),
      row<&FtConfig::ftId>("ftId"),
      row<&FtConfig::activeInterval, &FtConfig::activeIntervalIs>("activeInterval"),
      row<&FtConfig::localPort, &FtConfig::localPortIs>("localPort"),
      childRow<&FtConfig::localCollectorConfig>("localCollectorConfig"),
      mapRow<static_cast<ExpConfigMap>(&FtConfig::expConfig)>("expConfig"),
  };
  return rows;
}
Ptr<FtConfig> ftConfigFactory(const std::string& name, FlowTracking::FtId ftId) {
  return Ptr<FtConfig>::adopt(new FtConfig(name, ftId));
}

AttrRows Config::attrRows() const {
  static constexpr AttrRow rows[] = {
      mapRow<static_cast<FtConfigMap>(&Config::ftConfig)>("ftConfig")};
  return rows;
}
Ptr<Config> configFactory() { return Ptr<Config>::adopt(new Config); }

std::string FtTemplateEntry::stringValue() const {
  return ValueWriter("HwFlowTracking::FtTemplateEntry")
      .attr("position", position_)
      .attr("fieldId", fieldId_)
      .attr("fieldLen", fieldLen_)
      .attr("enterpriseIe", enterpriseIe_)
      .attr("flowKey", flowKey_)
      .str();
}

AttrRows TemplateStatus::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&TemplateStatus::templateId>("templateId"),
      mapRow<&TemplateStatus::ftTemplateEntry>("ftTemplateEntry"),
      row<&TemplateStatus::genId, &TemplateStatus::genIdIs>("genId"),
  };
  return rows;
}
Ptr<TemplateStatus> templateStatusFactory(FlowTracking::TemplateId templateId) {
  return Ptr<TemplateStatus>::adopt(new TemplateStatus(templateId));
}

AttrRows FtStatus::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FtStatus::name>("name"),
      mapRow<static_cast<TemplateMap>(&FtStatus::templateStatus)>("templateStatus"),
      row<&FtStatus::activeInterval, &FtStatus::activeIntervalIs>("activeInterval"),
      row<&FtStatus::inactiveTimeout, &FtStatus::inactiveTimeoutIs>("inactiveTimeout"),
      row<&FtStatus::sampleRate, &FtStatus::sampleRateIs>("sampleRate"),
  };
  return rows;
}
Ptr<FtStatus> ftStatusFactory(const std::string& name) {
  return Ptr<FtStatus>::adopt(new FtStatus(name));
}

AttrRows Status::attrRows() const {
  static constexpr AttrRow rows[] = {
      mapRow<static_cast<FtStatusMap>(&Status::ftStatus)>("ftStatus"),
      row<&Status::sampleRate, &Status::sampleRateIs>("sampleRate"),
  };
  return rows;
}
Ptr<Status> statusFactory() { return Ptr<Status>::adopt(new Status); }

}  // namespace HwFlowTracking
