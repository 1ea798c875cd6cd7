#pragma once
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "platform/sim/SimPlatform.h"

/// An agent in a test: the entities a host would publish, and the library's root reactors over
/// them, on simulated time.
namespace FlowTracking {

inline IpAndPort dst4(uint8_t host, uint16_t port = 4739) {
  return {IpAddr(0x0a000000u + host), port};
}
inline Ip6AndPort dst6(uint8_t host, uint16_t port = 4739) {
  Ip6Addr::Octets o{0x20, 0x01, 0x0d, 0xb8};
  o[15] = host;
  return {Ip6Addr(o), port};
}
inline const IpAddr source4(0xc0000201);  // 192.0.2.1
inline const Ip6Addr source6 = *Ip6Addr::fromString("2001:db8:1::1");

/// A received message, read without the library's help.
struct Seen {
  SimDatagram datagram;
  uint16_t field16(size_t at) const {
    return static_cast<uint16_t>(datagram.octets.at(at) << 8 | datagram.octets.at(at + 1));
  }
  uint32_t domain() const { return static_cast<uint32_t>(field16(12)) << 16 | field16(14); }
  uint16_t setId() const { return field16(16); }
  std::vector<uint16_t> setIds() const {
    std::vector<uint16_t> ids;
    for (size_t at = 16; at < datagram.octets.size(); at += field16(at + 2))
      ids.push_back(field16(at));
    return ids;
  }
  std::string to() const {
    const IpGenAddr& dst = datagram.dst;
    return dst.isIpv6() ? Ip6AndPort{dst.ip6Addr(), datagram.dstPort}.stringValue()
                        : IpAndPort{dst.ipAddr(), datagram.dstPort}.stringValue();
  }
};

/// The agent's whole tree; a test makes of it what it needs.
class Tree {
 public:
  Tree() {
    Platform::install(sim.get());
    sim->wallClockIs(1700000000.5);
    init = ::Ipfix::ipfixInitSmFactory();
    exporter->templateIntervalIs(30000);
  }
  ~Tree() {
    manager = nullptr;
    templateSm = nullptr;
    infoSm = nullptr;
    EXPECT_EQ(sim->openEndpoints(), 0u) << "an endpoint outlived its exporter";
    info = nullptr;
    Platform::install(nullptr);
  }

  void makeInfoSm() {
    infoSm = flowTrackingInfoSmFactory(sim->schedulerRoot(), hwConfig, info, init->agentInfo());
  }
  void makeManager() {
    manager =
        optionsDataManagerSmFactory(hwConfig, hwStatus, info, intfs, vrfs, stats, sim->scheduler());
  }
  void makeTemplateSm() {
    templateSm = templateSmFactory(req, hwConfig, hwStatus, info, init->elementIdCollection(),
                                   stats, sim->scheduler());
  }
  /// One template of the elements given, registry lengths; enterprise flags as registered.
  Ptr<HwFlowTracking::TemplateStatus> templateOf(TemplateId id,
                                                 const std::vector<uint32_t>& elements) {
    auto status = HwFlowTracking::templateStatusFactory(id);
    uint32_t position = 0;
    for (const uint32_t element : elements) {
      HwFlowTracking::FtTemplateEntry e(position++, element);
      const auto& known = init->elementIdCollection()->elementIdColl(element);
      e.fieldLenIs(static_cast<uint16_t>(known.len()));
      e.enterpriseIeIs(known.enterpriseIe());
      status->ftTemplateEntryIs(e);
    }
    status->genIdIs(1);
    return status;
  }
  /// One tracker with one exporter, ready in both families, with a template; no collectors.
  void makeReadyTree() {
    ftStatus->templateStatusIs(templateOf(256, {8, 12, 1}));
    exporter->srcIpAddrIs(source4);
    exporter->srcIp6AddrIs(source6);
    tracker->expConfigIs(exporter);
    hwConfig->ftConfigIs(tracker);
    hwStatus->ftStatusIs(ftStatus);
    makeInfoSm();
    makeTemplateSm();
    sim->runDue();
  }

  std::vector<Seen> seen() {
    std::vector<Seen> out;
    for (auto& d : sim->takeSent()) out.push_back({std::move(d)});
    return out;
  }
  std::optional<Tarn::Ipfix::CollectorStatisticsEntry> statsOf(const IpAndPort& d) {
    return stats->stats({"ft1", "exp1", Tarn::Ipfix::CollectorInfo::fromIpAndPort(d)});
  }
  Ptr<ExporterInfo> expInfo() const { return info->ftInfo("ft1")->expInfo("exp1"); }

  std::unique_ptr<SimPlatform> sim = simPlatform();
  Ptr<::Ipfix::IpfixInitSm> init;
  Ptr<HwFlowTracking::Config> hwConfig = HwFlowTracking::configFactory();
  Ptr<HwFlowTracking::Status> hwStatus = HwFlowTracking::statusFactory();
  Ptr<ConfigReq> req = configReqFactory();
  Ptr<FlowTrackingInfo> info = flowTrackingInfoFactory(FlowTrackingType::software);
  Ptr<Tarn::Ipfix::CollectorStatistics> stats = Tarn::Ipfix::collectorStatisticsFactory(
      simTableFactory(Tarn::Ipfix::CollectorStatistics::keyLen,
                      Tarn::Ipfix::CollectorStatistics::valueLen, 10000));
  Ptr<IntfIndexMap> intfs = intfIndexMapFactory();
  Ptr<Vrf::VrfIdMap::Status> vrfs = Vrf::VrfIdMap::statusFactory();
  Ptr<HwFlowTracking::FtConfig> tracker = HwFlowTracking::ftConfigFactory("ft1", 7);
  Ptr<HwFlowTracking::ExporterConfig> exporter = HwFlowTracking::exporterConfigFactory("exp1");
  Ptr<HwFlowTracking::FtStatus> ftStatus = HwFlowTracking::ftStatusFactory("ft1");
  Ptr<FlowTrackingInfoSm> infoSm;
  Ptr<TemplateSm> templateSm;
  Ptr<OptionsDataManagerSm> manager;
};
class TreeTest : public testing::Test, public Tree {};

}  // namespace FlowTracking
