#include <gtest/gtest.h>

#include "Ipfix/IpfixSm.h"
#include "platform/sim/SimPlatform.h"

using namespace platform;
using namespace Ipfix;

namespace {

TEST(RegistryTest, HoldsTheElementsAsTheyAreSent) {
  const auto sim = simPlatform();
  Platform::install(sim.get());
  const auto init = ipfixInitSmFactory();
  EXPECT_TRUE(init->initialized());
  const auto elements = init->elementIdCollection();
  Platform::install(nullptr);
  EXPECT_EQ(elements->elementIdColl().size(), 87u);

  struct Expected {
    uint32_t id;
    const char* name;
    uint32_t len;
    bool enterprise;
  };
  // One of each kind: plain, variable, enterprise, odd lengths, and the two that are irregular.
  for (const Expected& e :
       {Expected{1, "octetDeltaCount", 8, false}, Expected{82, "interfaceName", 65535, false},
        Expected{136, "flowEndReason", 1, false}, Expected{234, "ingressVRFID", 4, false},
        Expected{236, "VRFname", 65535, false}, Expected{1001, "flowTrackingType", 2, true},
        Expected{1024, "innerSrcIp", 4, true}, Expected{1029, "innerSourceTransportPort", 2, false},
        Expected{1030, "innerDestinationTransportPort", 2, false},
        Expected{1038, "vorlixBscanTsFlowStart", 6, true},
        Expected{1041, "vxlanNetworkId", 3, true},
        Expected{2022, "inbandTelemetryNodeMinimumLatency", 4, true}})
    EXPECT_EQ(elements->elementIdColl(e.id), ElementId(e.enterprise, e.id, e.len, e.name)) << e.id;
  size_t variable = 0;
  size_t enterprise = 0;
  uint64_t fixedLen = 0;
  for (const auto& [id, e] : elements->elementIdColl()) {
    EXPECT_EQ(id, e.id());
    variable += e.len() == 65535;
    fixedLen += e.len() == 65535 ? 0 : e.len();
    enterprise += e.enterpriseIe();
  }
  EXPECT_EQ(variable, 5u);
  EXPECT_EQ(enterprise, 37u);
  EXPECT_EQ(fixedLen, 373u);
  for (const uint32_t absent : {3u, 2016u, 1031u, 1035u, 0u}) {
    EXPECT_FALSE(elements->elementIdCollHas(absent));
    EXPECT_EQ(elements->elementIdColl(absent), ElementId());
  }
}

TEST(ElementIdTest, TextFormsReadBack) {
  const ElementId odd(true, 1042, 2, "it's, {odd}': \\ \n");
  EXPECT_EQ(ElementId::fromString(odd.stringValue()), odd);
  EXPECT_EQ(ElementId(false, 8, 4, "sourceIPv4Address").stringValue(),
            "Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': 8, 'len': 4, "
            "'str': 'sourceIPv4Address'})");
  EXPECT_FALSE(ElementId::fromString("Value('Ipfix::ElementId', ** {'id': 8})"));
  EXPECT_FALSE(ElementId::fromString("Value('Other', ** {})"));

  const IpfixMsgSeqNo last(4294967295u);
  EXPECT_EQ(last + IpfixMsgSeqNo(1), IpfixMsgSeqNo(0));
  EXPECT_EQ(last + IpfixMsgSeqNo(2), IpfixMsgSeqNo(1));
  EXPECT_EQ(IpfixMsgSeqNo::fromString(last.stringValue()), last);
  EXPECT_EQ(IpfixMsgSeqNo::fromString("Value('Ipfix::IpfixMsgSeqNo', ** {'value': 4294967295})"),
            last);
  EXPECT_FALSE(IpfixMsgSeqNo::fromString("4294967296"));
}

}  // namespace
