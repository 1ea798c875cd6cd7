#include "platform/FlowTracking.h"

namespace FlowTracking {

AttrRows Config::attrRows() const {
  static constexpr AttrRow rows[] = {row<&Config::swExport, &Config::swExportIs>("swExport")};
  return rows;
}
Ptr<Config> configFactory() { return make<Config>(); }

AttrRows ConfigReq::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&ConfigReq::clearCounters, &ConfigReq::clearCountersIs>("clearCounters")};
  return rows;
}
Ptr<ConfigReq> configReqFactory() { return make<ConfigReq>(); }

}  // namespace FlowTracking
