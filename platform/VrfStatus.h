#pragma once
#include <map>

#include "platform/Entity.h"
#include "platform/Values.h"

namespace Ip {
using namespace platform;

/// The VRFs of this machine: which are there, and where of each. One keyed notification per change.
class TARN_API AllVrfStatusLocal final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<AllVrfStatusLocal> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleVrf(const VrfName& /*vrf*/) {}
  };
  /// A VRF is listed while its namespace is there, with a number that is another one each time it
  /// comes: sockets made in what had the name before are of no more use.
  const std::map<VrfName, uint64_t>& vrf() const { return vrf_; }
  void vrfIs(const VrfName& vrf, uint64_t instance) {
    put(vrf_, vrf, instance, &Watcher::handleVrf);
  }
  void vrfDel(const VrfName& vrf) { del(vrf_, vrf, &Watcher::handleVrf); }

  AttrRows attrRows() const override {
    static constexpr AttrRow rows[] = {mapRow<&AllVrfStatusLocal::vrf>("vrf")};
    return rows;
  }

 private:
  std::map<VrfName, uint64_t> vrf_;
};
inline Ptr<AllVrfStatusLocal> allVrfStatusLocalFactory() {
  return Ptr<AllVrfStatusLocal>::adopt(new AllVrfStatusLocal);
}

}  // namespace Ip
