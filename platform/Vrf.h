#pragma once
#include <map>
#include <string>

#include "platform/Entity.h"
#include "platform/Values.h"

/// The host's VRFs: id to name, one keyed notification per change.
namespace Vrf::VrfIdMap {

class TARN_API Status final : public platform::Entity {
 public:
  class TARN_API Watcher : public platform::EntityWatcher<Status> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleVrf(platform::VrfId /*id*/) {}
  };
  /// Ids below 0xffffff, which stands for "no VRF" in flow records.
  const std::map<platform::VrfId, platform::VrfName>& vrf() const { return vrf_; }
  void vrfIs(platform::VrfId id, const platform::VrfName& name) {
    put(vrf_, id, name, &Watcher::handleVrf);
  }
  void vrfDel(platform::VrfId id) { del(vrf_, id, &Watcher::handleVrf); }

  platform::AttrRows attrRows() const override {
    static constexpr platform::AttrRow rows[] = {platform::mapRow<&Status::vrf>("vrf")};
    return rows;
  }

 private:
  std::map<platform::VrfId, platform::VrfName> vrf_;
};
inline platform::Ptr<Status> statusFactory() { return platform::Ptr<Status>::adopt(new Status); }

}  // namespace Vrf::VrfIdMap
