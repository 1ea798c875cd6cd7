#pragma once
#include "Ipfix/Ipfix.h"

namespace Ipfix {

/// Prepares what the library shares: the element registry and the agent information. The host
/// makes one before any other root reactor and keeps it as long as those live.
class TARN_API IpfixInitSm final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<IpfixInitSm> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleElementIdCollection() {}
    virtual void handleAgentInfo() {}
    virtual void handleInitializedChange() {}
  };

  IpfixInitSm() { handleInitialized(); }
  static Ptr<IpfixInitSm> IpfixInitSmIs() { return make<IpfixInitSm>(); }

  /// Null only while the constructor runs; so is `agentInfo`.
  Ptr<ElementIdColl> elementIdCollection() const { return elementIdCollection_; }
  void elementIdCollectionIs(Ptr<ElementIdColl> v) {
    set(elementIdCollection_, std::move(v), &Watcher::handleElementIdCollection);
  }
  Ptr<AgentInfo> agentInfo() const { return agentInfo_; }
  void agentInfoIs(Ptr<AgentInfo> v) { set(agentInfo_, std::move(v), &Watcher::handleAgentInfo); }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { set(initialized_, v, &Watcher::handleInitializedChange); }

  /// Builds a fresh registry and fresh agent information in place of the present ones, whose
  /// holders keep them. Run once by the constructor.
  void handleInitialized();

  AttrRows attrRows() const override;

 private:
  Ptr<ElementIdColl> elementIdCollection_;
  Ptr<AgentInfo> agentInfo_;
  bool initialized_ = false;
};
TARN_API Ptr<IpfixInitSm> ipfixInitSmFactory();

}  // namespace Ipfix
