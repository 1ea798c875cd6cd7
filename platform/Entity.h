#pragma once
#include <concepts>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Ptr.h"
#include "platform/Text.h"

/// The entity framework: objects with attributes and collections that tell their watchers when a
/// value changes. Everything runs on one thread (the agent's).
///
///   class Thing final : public Entity {
///    public:
///     class Watcher : public EntityWatcher<Thing> {
///      public:
///       using EntityWatcher::EntityWatcher;
///       virtual void handleSize() {}
///     };
///     uint32_t size() const { return size_; }
///     void sizeIs(uint32_t v) { set(size_, v, &Watcher::handleSize); }
///    ...
///
/// Rules that a handler may rely on:
///  - it is called only when the value changed, synchronously, in the order of change;
///  - it may change anything, create and destroy watchers (itself included), and drop the last
///    reference to the entity: that lives until the round is over;
///  - a watcher made inside a round hears from the next change on; a destroyed one hears nothing;
///  - no exception leaves a handler.
///
/// A reactor is an entity that watches others and makes further reactors. Its watchers name it
/// (`NestedReactor`), its tasks are made by `reactorTask`, its children live in a `ChildMap`
/// (platform/Reactor.h). Then a handler may let any of them go, its own reactor included: whoever
/// removes a reactor retires it, from then on none of its watchers and tasks is called, and its
/// memory stays until the handler that is under way has returned.
namespace platform {

class Entity;
template <class Child, class Key = std::string>
class ChildMap;

/// A copy of a map's keys, for a loop whose body may change the map.
template <class Map>
std::vector<typename Map::key_type> keysOf(const Map& map) {
  std::vector<typename Map::key_type> keys;
  keys.reserve(map.size());
  for (const auto& entry : map) keys.push_back(entry.first);
  return keys;
}

/// What access by name needs of one attribute. Made by `row`, `childRow`, `mapRow`, `actionRow`.
struct AttrRow {
  /// Receives the members of a collection: the key's text, and the child entity or else the text.
  using Visitor =
      std::function<void(const std::string& key, const Entity* child, const std::string& text)>;
  using PartVisitor =
      std::function<bool(const std::string& key, const Entity* child, const std::string& text)>;
  std::string_view name;
  std::string (*get)(const Entity&) = nullptr;                  ///< value attributes
  bool (*set)(Entity&, std::string_view text) = nullptr;        ///< settable ones; false: bad text
  void (*each)(const Entity&, const Visitor& visit) = nullptr;  ///< children and collections
  /// The same for maps, in parts: from the member whose key has the text `key`, or the next one
  /// `behind` it (null: from the first), as long as `visit` returns true. Costs what is visited,
  /// not what the map holds. False: the text is no key, or the map has no order and the key is
  /// gone.
  bool (*from)(const Entity&, const std::string* key, bool behind,
               const PartVisitor& visit) = nullptr;
  void (*run)(Entity&) = nullptr;  ///< actions
};
using AttrRows = std::span<const AttrRow>;

enum class AttrResult { ok, unknownName, readOnly, badText };

/// A watcher's place in its entity's list. The watcher holds the entity, never the reverse.
class TARN_API EntityWatcherBase {
 public:
  EntityWatcherBase(const EntityWatcherBase&) = delete;
  EntityWatcherBase& operator=(const EntityWatcherBase&) = delete;

 protected:
  /// `reactor`: the entity that this watcher works for, and is a member of; null: none. It is kept
  /// alive during each handler, and no handler is called once it is retired.
  explicit EntityWatcherBase(Ptr<const Entity> watched, Entity* reactor = nullptr);
  virtual ~EntityWatcherBase();
  const Entity* watched() const { return watched_.get(); }

 private:
  friend class Entity;
  Ptr<const Entity> watched_;
  Entity* reactor_;
  size_t slot_ = 0;  // of the entity's list
};

/// Base of the `Watcher` class of entity type `E`.
template <class E>
class EntityWatcher : public EntityWatcherBase {
 public:
  /// `entity` must not be null.
  explicit EntityWatcher(Ptr<const E> entity, Entity* reactor = nullptr)
      : EntityWatcherBase(std::move(entity), reactor) {}
  const E* entity() const { return static_cast<const E*>(watched()); }
};

class TARN_API Entity {
 public:
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;

  void addRef() const noexcept { ++refs_; }
  void release() const noexcept {
    if (--refs_ == 0) destroy();
  }
  uint32_t refs() const noexcept { return refs_; }

  /// Whoever owns a reactor calls this when it lets the reactor go; dropping the last reference
  /// does it as well. Runs `handleRetired` once.
  void retire() noexcept {
    if (!std::exchange(retired_, true)) handleRetired();
  }
  /// A retired reactor hears nothing any more; it must not make or change anything.
  bool retired() const noexcept { return retired_; }

  /// The rows of this type's attributes, for access by name; the order is the declaration's.
  virtual AttrRows attrRows() const { return {}; }
  /// The attribute's text, or nothing where there is no such value attribute.
  std::optional<std::string> attrText(std::string_view name) const;
  /// Sets an attribute from its text; on anything but `ok` nothing changed.
  AttrResult attrTextIs(std::string_view name, std::string_view text);
  /// Runs an action; `unknownName` where there is none of that name.
  AttrResult attrRun(std::string_view name);

 protected:
  Entity() noexcept = default;
  virtual ~Entity();

  /// Takes back what the reactor gave to others: closes, removes, retires its children. The object
  /// is still whole here, and what this notifies may ask it; a destructor must notify nobody.
  virtual void handleRetired() {}

  /// Stores `v` and tells the watchers when that changes the value.
  template <class T, class V, class W>
  void set(T& member, V&& v, void (W::*handler)()) {
    if (member == v) return;
    // The old value may hold the last reference to what a caller still uses: drop it at the end.
    [[maybe_unused]] const T old = std::exchange(member, T(std::forward<V>(v)));
    notify(handler);
  }
  template <class Map, class V, class W, class K>
  void put(Map& map, const typename Map::key_type& key, V&& v, void (W::*handler)(K)) {
    [[maybe_unused]] typename Map::mapped_type old{};
    if (const auto [it, added] = map.try_emplace(key, std::forward<V>(v)); !added) {
      if (it->second == v) return;
      old = std::exchange(it->second, typename Map::mapped_type(std::forward<V>(v)));
    }
    const typename Map::key_type copy = key;  // a handler may destroy what `key` refers to
    notify(handler, copy);
  }
  /// The child under `key`; where there is none it is made of the key, stored and announced. A
  /// watcher may have removed it again by the time this returns it.
  template <class Map, class W, class K>
  typename Map::mapped_type made(Map& map, const typename Map::key_type& key,
                                 void (W::*handler)(K)) {
    if (auto it = map.find(key); it != map.end()) return it->second;
    using Child = std::remove_pointer_t<decltype(map.begin()->second.get())>;
    auto child = make<Child>(key);
    put(map, key, child, handler);
    return child;
  }
  /// Removes the entry; it lives until the watchers have been told. False: there was none.
  template <class Map, class W, class K>
  bool del(Map& map, const typename Map::key_type& key, void (W::*handler)(K)) {
    auto node = map.extract(key);
    if (node.empty()) return false;
    notify(handler, node.key());
    return true;
  }
  /// Removes the entries that are there now; one that a handler adds stays.
  template <class Map, class W, class K>
  void delAll(Map& map, void (W::*handler)(K)) {
    const Ptr<Entity> hold(this);
    for (const auto& key : keysOf(map)) del(map, key, handler);
  }
  /// Removes children that nobody watches as a collection, and retires them. They are out of the
  /// map before that notifies; `key` may be the map's own.
  template <class Map>
  static void drop(Map& map, const typename Map::key_type& key) {
    if (const auto old = map.extract(key)) old.mapped()->retire();
  }
  template <class Map>
  static void dropAll(Map& map) {
    for (const Map old = std::exchange(map, {}); const auto& [key, child] : old) child->retire();
  }
  /// The entry's value, or a default one (null for a pointer).
  template <class Map>
  static typename Map::mapped_type find(const Map& map, const typename Map::key_type& key) {
    auto it = map.find(key);
    return it == map.end() ? typename Map::mapped_type{} : it->second;
  }

  template <class W, class... P, class... A>
  void notify(void (W::*handler)(P...), const A&... args) const noexcept {
    if (!watchers_) return;
    Round round(*this);
    // A watcher that a handler adds waits for the next change; one that leaves clears its slot.
    for (size_t i = 0; i < round.count; ++i) {
      auto* w = watchers_->all[i];
      if (!w || (w->reactor_ && w->reactor_->retired_)) continue;
      const Ptr<Entity> hold(w->reactor_);  // the handler may remove the reactor it belongs to
      (static_cast<W*>(w)->*handler)(args...);
    }
  }

 private:
  friend class EntityWatcherBase;
  struct WatcherList {
    std::vector<EntityWatcherBase*> all;  // null: one that left
    size_t cleared = 0;                   // slots of those that left
    uint32_t depth = 0;                   // rounds under way, nested
    /// Takes the cleared slots out once they are half of all, so that each watcher that leaves
    /// costs the same however many there are.
    void settle() noexcept;
  };
  struct TARN_API Round {
    explicit Round(const Entity& e) noexcept;
    ~Round();
    Ptr<const Entity> entity;  // a handler may drop the last reference
    size_t count;
  };

  void watcherAdd(EntityWatcherBase* w) const;
  void watcherDel(EntityWatcherBase* w) const noexcept;
  void destroy() const noexcept;

  mutable uint32_t refs_ = 1;
  bool retired_ = false;
  mutable std::unique_ptr<WatcherList> watchers_;  // made by the first watcher
};
static_assert(sizeof(Entity) == 24, "vtable, count, list: what an unwatched entity costs");

namespace detail {
template <class F>
struct MemberOf;
template <class C, class R>
struct MemberOf<R C::*> {
  using Class = C;
  using Result = std::remove_cv_t<R>;
};
template <class C, class R>
struct MemberOf<R (C::*)() const> {
  using Class = C;
  using Result = std::remove_cvref_t<R>;
};
template <class C, class R>
struct MemberOf<R (C::*)()> {
  using Class = C;
};
template <class C, class R, class A>
struct MemberOf<R (C::*)(A)> {
  using Class = C;
  using Arg = std::remove_cvref_t<A>;
};
template <class F>
struct PagedOf;
template <class C, class... A>
struct PagedOf<bool (C::*)(A...) const> {
  using Class = C;
};
template <class T>
concept EntityPtr = requires(const T& p) {
  { p.get() } -> std::convertible_to<const Entity*>;
};
/// What is shown in place of an entity: its name, "set" where it has none, or "null".
template <class P>
std::string refText(const P& p) {
  if constexpr (requires { toText(p->name()); }) {
    return p ? toText(p->name()) : "null";
  } else {
    return p ? "set" : "null";
  }
}
template <class Map>
const Map& mapOf(const Map& map) {
  return map;
}
template <class Child, class Key>
const std::map<Key, Ptr<Child>>& mapOf(const ChildMap<Child, Key>& map) {
  return map.all();
}
}  // namespace detail

/// In each of these, `Get` is an accessor or a data member: `row<&E::dscp, &E::dscpIs>("dscp")`,
/// `mapRow<&E::collInfo_>("collInfo")`.
///
/// A value attribute; settable when the setter is given too. A setter refuses a value by
/// std::range_error; by name that is a bad text.
template <auto Get>
constexpr AttrRow row(std::string_view name) {
  using M = detail::MemberOf<decltype(Get)>;
  return {.name = name, .get = [](const Entity& e) {
            return toText(std::invoke(Get, static_cast<const typename M::Class&>(e)));
          }};
}
template <auto Get, auto Set>
constexpr AttrRow row(std::string_view name) {
  using S = detail::MemberOf<decltype(Set)>;
  AttrRow r = row<Get>(name);
  r.set = [](Entity& e, std::string_view text) {
    typename S::Arg value{};
    if (!fromText(text, value)) return false;
    try {
      (static_cast<typename S::Class&>(e).*Set)(std::move(value));
    } catch (const std::range_error&) {
      return false;
    }
    return true;
  };
  return r;
}
/// A pointer to another entity (null shows nothing).
template <auto Get>
constexpr AttrRow childRow(std::string_view name) {
  using M = detail::MemberOf<decltype(Get)>;
  return {.name = name, .each = [](const Entity& e, const AttrRow::Visitor& visit) {
            const auto& child = std::invoke(Get, static_cast<const typename M::Class&>(e));
            if (child) visit({}, child.get(), {});
          }};
}
/// A map (an accessor returns it by reference) or a `ChildMap`; values are entities or have a text
/// form, keys have a text form and its parser. `asRefs`: entities that stand elsewhere in the tree
/// are shown as `refRow` shows them.
template <auto Get, bool asRefs = false>
constexpr AttrRow mapRow(std::string_view name) {
  using M = detail::MemberOf<decltype(Get)>;
  using Map = std::remove_cvref_t<decltype(detail::mapOf(std::declval<typename M::Result>()))>;
  AttrRow r{.name = name};
  r.from = [](const Entity& e, const std::string* key, bool behind,
              const AttrRow::PartVisitor& visit) {
    const Map& map = detail::mapOf(std::invoke(Get, static_cast<const typename M::Class&>(e)));
    auto it = map.begin();
    if (key) {
      typename Map::key_type k{};
      if (!fromText(*key, k)) return false;
      if constexpr (requires { map.lower_bound(k); }) {
        it = behind ? map.upper_bound(k) : map.lower_bound(k);
      } else {
        it = map.find(k);
        if (it == map.end()) return false;
        if (behind) ++it;
      }
    }
    for (bool more = true; more && it != map.end(); ++it) {
      if constexpr (!detail::EntityPtr<typename Map::mapped_type>) {
        more = visit(toText(it->first), nullptr, toText(it->second));
      } else if constexpr (asRefs) {
        more = visit(toText(it->first), nullptr, detail::refText(it->second));
      } else {
        more = visit(toText(it->first), it->second.get(), {});
      }
    }
    return true;
  };
  r.each = [](const Entity& e, const AttrRow::Visitor& visit) {
    mapRow<Get, asRefs>({}).from(e, nullptr, false, [&](const auto&... member) {
      visit(member...);
      return true;
    });
  };
  return r;
}
/// A collection that is neither map nor set: `From` is a member function with the signature of
/// `AttrRow::from`, less the entity.
template <auto From>
constexpr AttrRow pagedRow(std::string_view name) {
  AttrRow r{.name = name};
  using C = typename detail::PagedOf<decltype(From)>::Class;
  r.from = [](const Entity& e, const std::string* key, bool behind,
              const AttrRow::PartVisitor& visit) {
    return (static_cast<const C&>(e).*From)(key, behind, visit);
  };
  r.each = [](const Entity& e, const AttrRow::Visitor& visit) {
    (static_cast<const C&>(e).*From)(nullptr, false, [&](const auto&... member) {
      visit(member...);
      return true;
    });
  };
  return r;
}
/// A pointer to an entity that stands elsewhere in the tree: shows its name, "set" where it has
/// none, or "null". A walk does not go down there again.
template <auto Get>
constexpr AttrRow refRow(std::string_view name) {
  using M = detail::MemberOf<decltype(Get)>;
  return {.name = name, .get = [](const Entity& e) {
            return detail::refText(std::invoke(Get, static_cast<const typename M::Class&>(e)));
          }};
}
/// A set; each member shows its text.
template <auto Get>
constexpr AttrRow setRow(std::string_view name) {
  using M = detail::MemberOf<decltype(Get)>;
  return {.name = name, .each = [](const Entity& e, const AttrRow::Visitor& visit) {
            for (const auto& v : std::invoke(Get, static_cast<const typename M::Class&>(e)))
              visit(toText(v), nullptr, {});
          }};
}
template <auto Run>
constexpr AttrRow actionRow(std::string_view name) {
  using M = detail::MemberOf<decltype(Run)>;
  return {.name = name, .run = [](Entity& e) { (static_cast<typename M::Class&>(e).*Run)(); }};
}

}  // namespace platform
