#include "Ipfix/FlowTrackingTypes.h"

namespace FlowTracking {

AttrRows IntfIndexMap::attrRows() const {
  static constexpr AttrRow rows[] = {
      mapRow<&IntfIndexMap::intfIndex>("intfIndex"),
      mapRow<&IntfIndexMap::intfId>("intfId"),
  };
  return rows;
}
Ptr<IntfIndexMap> intfIndexMapFactory() { return Ptr<IntfIndexMap>::adopt(new IntfIndexMap); }

}  // namespace FlowTracking
