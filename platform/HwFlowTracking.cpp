#include "platform/HwFlowTracking.h"

#include <stdexcept>

namespace HwFlowTracking {

void detail::refuse(const char* attribute, const std::string& value, const char* allowed) {
  throw std::range_error(std::string(attribute) + ": " + value + " is not " + allowed);
}

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
      mapRow<&E::collectorIpAndPort_>("collectorIpAndPort"),
      mapRow<&E::collectorIp6AndPort_>("collectorIp6AndPort"),
      row<&E::exporter4Ready, &E::exporter4ReadyIs>("exporter4Ready"),
      row<&E::exporter6Ready, &E::exporter6ReadyIs>("exporter6Ready"),
      row<&E::rxPort4, &E::rxPort4Is>("rxPort4"),
      row<&E::rxPort6, &E::rxPort6Is>("rxPort6"),
  };
  return rows;
}
Ptr<ExporterConfig> exporterConfigFactory(const std::string& name) {
  return make<ExporterConfig>(name);
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
Ptr<LocalCollectorConfig> localCollectorConfigFactory() { return make<LocalCollectorConfig>(); }

AttrRows FtConfig::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FtConfig::ftName>("ftName"),
      row<&FtConfig::ftId>("ftId"),
      row<&FtConfig::activeInterval, &FtConfig::activeIntervalIs>("activeInterval"),
      row<&FtConfig::localPort, &FtConfig::localPortIs>("localPort"),
      childRow<&FtConfig::localCollectorConfig>("localCollectorConfig"),
      mapRow<&FtConfig::expConfig_>("expConfig"),
  };
  return rows;
}
Ptr<FtConfig> ftConfigFactory(const std::string& name, FlowTracking::FtId ftId) {
  return make<FtConfig>(name, ftId);
}

AttrRows Config::attrRows() const {
  static constexpr AttrRow rows[] = {mapRow<&Config::ftConfig_>("ftConfig")};
  return rows;
}
Ptr<Config> configFactory() { return make<Config>(); }

std::string FtTemplateEntry::stringValue() const {
  return ValueWriter("HwFlowTracking::FtTemplateEntry")
      .attr("position", position_)
      .attr("fieldId", fieldId_)
      .attr("fieldLen", fieldLen_)
      .attr("enterpriseIe", enterpriseIe_)
      .attr("flowKey", flowKey_)
      .str();
}
std::optional<FtTemplateEntry> FtTemplateEntry::fromString(std::string_view text) {
  FtTemplateEntry e;
  const bool ok = ValueReader("HwFlowTracking::FtTemplateEntry", text)
                      .attr("position", e.position_)
                      .attr("fieldId", e.fieldId_)
                      .attr("fieldLen", e.fieldLen_)
                      .attr("enterpriseIe", e.enterpriseIe_)
                      .attr("flowKey", e.flowKey_)
                      .ok();
  return ok ? std::optional(e) : std::nullopt;
}

AttrRows TemplateStatus::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&TemplateStatus::templateId>("templateId"),
      mapRow<&TemplateStatus::ftTemplateEntry_>("ftTemplateEntry"),
      row<&TemplateStatus::genId, &TemplateStatus::genIdIs>("genId"),
  };
  return rows;
}
Ptr<TemplateStatus> templateStatusFactory(FlowTracking::TemplateId templateId) {
  return make<TemplateStatus>(templateId);
}

AttrRows FtStatus::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&FtStatus::name>("name"),
      mapRow<&FtStatus::templateStatus_>("templateStatus"),
      row<&FtStatus::activeInterval, &FtStatus::activeIntervalIs>("activeInterval"),
      row<&FtStatus::inactiveTimeout, &FtStatus::inactiveTimeoutIs>("inactiveTimeout"),
      row<&FtStatus::sampleRate, &FtStatus::sampleRateIs>("sampleRate"),
  };
  return rows;
}
Ptr<FtStatus> ftStatusFactory(const std::string& name) { return make<FtStatus>(name); }

AttrRows Status::attrRows() const {
  static constexpr AttrRow rows[] = {
      mapRow<&Status::ftStatus_>("ftStatus"),
      row<&Status::sampleRate, &Status::sampleRateIs>("sampleRate"),
  };
  return rows;
}
Ptr<Status> statusFactory() { return make<Status>(); }

}  // namespace HwFlowTracking
