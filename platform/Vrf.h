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
  /// Empty where there is no VRF of that id.
  platform::VrfName vrf(platform::VrfId id) const { return find(vrf_, id); }
  void vrfIs(platform::VrfId id, const platform::VrfName& name) {
    put(vrf_, id, name, &Watcher::handleVrf);
  }
  void vrfDel(platform::VrfId id) { del(vrf_, id, &Watcher::handleVrf); }
  void vrfDelAll() { delAll(vrf_, &Watcher::handleVrf); }

  platform::AttrRows attrRows() const override {
    static constexpr platform::AttrRow rows[] = {platform::mapRow<&Status::vrf_>("vrf")};
    return rows;
  }

 private:
  std::map<platform::VrfId, platform::VrfName> vrf_;
};
inline platform::Ptr<Status> statusFactory() { return platform::make<Status>(); }

}  // namespace Vrf::VrfIdMap
