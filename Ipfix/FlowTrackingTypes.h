#pragma once
#include <cstdint>
#include <map>
#include <unordered_map>

#include "platform/Entity.h"
#include "platform/Values.h"

namespace FlowTracking {

/// The 32-bit index that flow records carry for each interface, and back. The host writes both
/// maps and keeps them each other's inverse; the library only reads them. An interface must not
/// have one of the reserved indexes; its name has 1 to `nameMax` octets.
class TARN_API IntfIndexMap final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<IntfIndexMap> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleIntfIndex(const IntfId& /*intfId*/) {}
    virtual void handleIntfId(uint32_t /*index*/) {}
  };

  static constexpr uint32_t numReservedIntfs() { return 4; }
  static constexpr const char* cpuIntfName = "CPU";
  static constexpr const char* discardIntfName = "discard";
  static constexpr const char* multicastIntfName = "multicast";
  static constexpr const char* unknownIntfName = "unknown";
  static constexpr uint32_t multicastIndex = 0x80000000;
  static constexpr uint32_t discardIndex = 0x40000000;
  static constexpr uint32_t cpuIndex = 0x3fffffff;
  static constexpr uint32_t unknownIndex = 0;
  static constexpr bool isReserved(uint32_t index) {
    return index == multicastIndex || index == discardIndex || index == cpuIndex ||
           index == unknownIndex;
  }
  /// Octets: the longest that one length octet below 255 announces (RFC 7011, 7).
  static constexpr size_t nameMax = 254;

  const std::map<IntfId, uint32_t>& intfIndex() const { return intfIndex_; }
  /// `unknownIndex` where the interface has none.
  uint32_t intfIndex(const IntfId& id) const { return find(intfIndex_, id); }
  /// The interface's entry, or `intfIndex().end()`. Costs no search for the one that was set last,
  /// which is what a watcher asks for when it hears of a change.
  std::map<IntfId, uint32_t>::const_iterator intfIndexEntry(const IntfId& id) const {
    return newest_ != intfIndex_.end() && newest_->first == id ? newest_ : intfIndex_.find(id);
  }
  void intfIndexIs(const IntfId& id, uint32_t index) {
    const auto [entry, added] = intfIndex_.try_emplace(id, index);
    if (!added && std::exchange(entry->second, index) == index) return;
    newest_ = entry;
    notify(&Watcher::handleIntfIndex, IntfId(id));
  }
  void intfIndexDel(const IntfId& id) {
    if (newest_ != intfIndex_.end() && newest_->first == id) newest_ = intfIndex_.end();
    del(intfIndex_, id, &Watcher::handleIntfIndex);
  }
  void intfIndexDelAll() {
    const Ptr<Entity> hold(this);
    for (const IntfId& id : keysOf(intfIndex_)) intfIndexDel(id);
  }
  const std::unordered_map<uint32_t, IntfId>& intfId() const { return intfId_; }
  /// Empty where no interface has that index.
  IntfId intfId(uint32_t index) const { return find(intfId_, index); }
  void intfIdIs(uint32_t index, const IntfId& id) {
    put(intfId_, index, id, &Watcher::handleIntfId);
  }
  void intfIdDel(uint32_t index) { del(intfId_, index, &Watcher::handleIntfId); }
  void intfIdDelAll() { delAll(intfId_, &Watcher::handleIntfId); }

  AttrRows attrRows() const override;

 private:
  std::map<IntfId, uint32_t> intfIndex_;
  std::map<IntfId, uint32_t>::const_iterator newest_ = intfIndex_.end();
  std::unordered_map<uint32_t, IntfId> intfId_;
};
TARN_API Ptr<IntfIndexMap> intfIndexMapFactory();

}  // namespace FlowTracking
