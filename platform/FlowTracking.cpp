#include "platform/FlowTracking.h"

namespace FlowTracking {

AttrRows ConfigReq::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&ConfigReq::clearCounters, &ConfigReq::clearCountersIs>("clearCounters")};
  return rows;
}
Ptr<ConfigReq> configReqFactory() { return Ptr<ConfigReq>::adopt(new ConfigReq); }

}  // namespace FlowTracking
