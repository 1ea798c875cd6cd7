#pragma once
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/Entity.h"

/// What reactors are made of: their watchers and their children. platform/Entity.h says how they
/// live.
namespace platform {

/// A watcher of one `E` that is a member of the reactor `R` and calls its handlers as `sm_`:
///
///   class ExporterSm::ConfigSm final : public NestedReactor<ExporterConfig, ExporterSm> {
///    public:
///     using NestedReactor::NestedReactor;
///     void handleDscp() override { sm_.handleDscp(); }
///   };
template <class E, class R>
class NestedReactor : public E::Watcher {
 public:
  NestedReactor(Ptr<const E> entity, R& sm) : E::Watcher(std::move(entity), &sm), sm_(sm) {}

 protected:
  R& sm_;
};

/// The children that a reactor makes and owns, by key. Making and removing a child notifies, and a
/// handler may ask for the same child again, or remove it, before it is stored: `reconcile` does
/// one thing at a time.
template <class Child, class Key>
class ChildMap {
 public:
  using Map = std::map<Key, Ptr<Child>>;
  ChildMap() = default;
  ChildMap(const ChildMap&) = delete;
  ChildMap& operator=(const ChildMap&) = delete;
  ~ChildMap() { delAll(); }

  const Map& all() const { return map_; }
  Ptr<Child> find(const Key& key) const {
    const auto it = map_.find(key);
    return it == map_.end() ? Ptr<Child>() : it->second;
  }
  /// Stores `child`; one that was there is retired.
  void put(const Key& key, Ptr<Child> child) {
    del(key);
    map_.emplace(key, std::move(child));
  }
  /// Takes the child out of the map, then retires it. `key` may be the map's own.
  bool del(const Key& key) {
    if (const auto it = beingMade_.find(key); it != beingMade_.end()) it->second->retire();
    const auto old = map_.extract(key);
    if (old) old.mapped()->retire();
    return bool{old};
  }
  void delAll() {
    for (const auto& [key, child] : std::map(beingMade_)) child->retire();
    for (const Map old = std::exchange(map_, {}); const auto& [key, child] : old) child->retire();
  }
  /// A child whose constructor notifies may call this first. Then `del` and `delAll` retire it
  /// although it is not stored yet, and its successor finds its resources released.
  void beingMade(const Key& key, Child& child) { beingMade_[key] = &child; }

  /// Brings the child under `key` in step with what there is now to make it of.
  ///   fits(child): the child is made of just that;
  ///   gone(key): a child that did not fit has been removed;
  ///   make(key): returns a new child, or null where something is missing.
  /// Called again for the same key from inside one of these, it returns at once, and the call under
  /// way then repeats its checks. `owner` is the reactor that this map is a member of.
  template <class Fits, class Gone, class Make>
  void reconcile(const Entity& owner, const Key& of, Fits&& fits, Gone&& gone, Make&& make) {
    const Key key = of;  // a handler may destroy what `of` refers to
    if (const auto [turn, first] = askedAgain_.try_emplace(key, false); !first) {
      turn->second = true;
      return;
    }
    do {
      askedAgain_[key] = false;
      if (const auto child = find(key); child && !fits(*child)) {
        del(key);
        gone(key);
      }
      if (owner.retired() || map_.contains(key)) continue;
      const Ptr<Child> child = make(key);
      beingMade_.erase(key);
      if (!child || child->retired()) continue;
      if (owner.retired()) {
        child->retire();
      } else {
        put(key, child);
      }
    } while (askedAgain_[key] && !owner.retired());
    askedAgain_.erase(key);
  }

 private:
  Map map_;
  /// Keys whose child is being made or removed further up the stack.
  std::map<Key, bool> askedAgain_;
  std::map<Key, Child*> beingMade_;
};

}  // namespace platform
