#pragma once
#include <map>

#include "platform/Entity.h"
#include "platform/Values.h"

namespace Ip {
using namespace platform;

/// The VRFs of this machine whose network namespaces are there. One keyed notification per change.
class TARN_API AllVrfStatusLocal final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<AllVrfStatusLocal> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleVrf(const VrfName& /*vrf*/) {}
  };
  /// The host lists a VRF while its namespace is there, with a number, 1 or more, that it gives
  /// only once: a socket that was opened in an earlier namespace of the same name reaches nobody.
  const std::map<VrfName, uint64_t>& vrf() const { return vrf_; }
  /// 0 where there is no such VRF.
  uint64_t vrf(const VrfName& name) const { return find(vrf_, name); }
  void vrfIs(const VrfName& vrf, uint64_t instance) {
    put(vrf_, vrf, instance, &Watcher::handleVrf);
  }
  void vrfDel(const VrfName& vrf) { del(vrf_, vrf, &Watcher::handleVrf); }
  void vrfDelAll() { delAll(vrf_, &Watcher::handleVrf); }

  AttrRows attrRows() const override {
    static constexpr AttrRow rows[] = {mapRow<&AllVrfStatusLocal::vrf_>("vrf")};
    return rows;
  }

 private:
  std::map<VrfName, uint64_t> vrf_;
};
inline Ptr<AllVrfStatusLocal> allVrfStatusLocalFactory() { return make<AllVrfStatusLocal>(); }

}  // namespace Ip
