#include "Ipfix/IpfixSm.h"

#include "platform/Trace.h"

namespace Ipfix {

void IpfixInitSm::handleInitialized() {
  trace(TraceLevel::event, "IpfixInitSm::handleInitialized");
  auto elements = elementIdCollFactory();
  elementIdCollectionIs(elements);
  elements->doInitialize();
  agentInfoIs(agentInfoFactory());
  initializedIs(true);
}
AttrRows IpfixInitSm::attrRows() const {
  static constexpr AttrRow rows[] = {
      childRow<&IpfixInitSm::elementIdCollection_>("elementIdCollection"),
      childRow<&IpfixInitSm::agentInfo_>("agentInfo"),
      row<&IpfixInitSm::initialized, &IpfixInitSm::initializedIs>("initialized"),
      actionRow<&IpfixInitSm::handleInitialized>("handleInitialized"),
  };
  return rows;
}
Ptr<IpfixInitSm> ipfixInitSmFactory() { return IpfixInitSm::IpfixInitSmIs(); }

}  // namespace Ipfix
