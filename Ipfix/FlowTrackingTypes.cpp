#include "Ipfix/FlowTrackingTypes.h"

namespace FlowTracking {

AttrRows IntfIndexMap::attrRows() const {
  static constexpr AttrRow rows[] = {
      mapRow<&IntfIndexMap::intfIndex_>("intfIndex"),
      mapRow<&IntfIndexMap::intfId_>("intfId"),
  };
  return rows;
}
Ptr<IntfIndexMap> intfIndexMapFactory() { return make<IntfIndexMap>(); }

}  // namespace FlowTracking
