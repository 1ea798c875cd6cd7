#include "platform/Entity.h"

#include <algorithm>
#ifndef NDEBUG
#include <thread>

#include "platform/Assert.h"
#endif

namespace platform {
namespace {
/// Counts and lists are unguarded: an entity touched from a second thread is a fault at once.
void assertOwningThread() {
#ifndef NDEBUG
  static const std::thread::id owner = std::this_thread::get_id();
  TARN_ASSERT_AS(owner == std::this_thread::get_id(), "entities belong to one thread");
#endif
}
}  // namespace

EntityWatcherBase::EntityWatcherBase(Ptr<const Entity> watched, Entity* reactor)
    : watched_(std::move(watched)), reactor_(reactor) {
  watched_->watcherAdd(this);
}
EntityWatcherBase::~EntityWatcherBase() { watched_->watcherDel(this); }

Entity::~Entity() = default;

void Entity::destroy() const noexcept {
  // From here on a `Ptr` to this object, made by something that retiring runs, does not bring the
  // count back to zero.
  refs_ = 1U << 31;
  const_cast<Entity*>(this)->retire();
  delete this;
}

void Entity::watcherAdd(EntityWatcherBase* w) const {
  assertOwningThread();
  if (!watchers_) watchers_ = std::make_unique<WatcherList>();
  w->slot_ = watchers_->all.size();
  watchers_->all.push_back(w);
}
void Entity::watcherDel(EntityWatcherBase* w) const noexcept {
  watchers_->all[w->slot_] = nullptr;
  ++watchers_->cleared;
  watchers_->settle();
}
void Entity::WatcherList::settle() noexcept {
  if (depth > 0 || cleared * 2 < all.size()) return;
  std::erase(all, nullptr);
  for (size_t i = 0; i < all.size(); ++i) all[i]->slot_ = i;
  cleared = 0;
}

Entity::Round::Round(const Entity& e) noexcept : entity(&e), count(e.watchers_->all.size()) {
  assertOwningThread();
  ++e.watchers_->depth;
}
Entity::Round::~Round() {
  WatcherList& list = *entity->watchers_;
  if (--list.depth == 0 && list.cleared > 0) list.settle();
}

namespace {
const AttrRow* rowNamed(AttrRows rows, std::string_view name) {
  auto it =
      std::find_if(rows.begin(), rows.end(), [&](const AttrRow& r) { return r.name == name; });
  return it == rows.end() ? nullptr : &*it;
}
}  // namespace

std::optional<std::string> Entity::attrText(std::string_view name) const {
  const AttrRow* r = rowNamed(attrRows(), name);
  if (!r || !r->get) return std::nullopt;
  return r->get(*this);
}
AttrResult Entity::attrTextIs(std::string_view name, std::string_view text) {
  const AttrRow* r = rowNamed(attrRows(), name);
  if (!r || !r->get) return AttrResult::unknownName;
  if (!r->set) return AttrResult::readOnly;
  const Ptr<Entity> hold(this);  // who hears of the change may drop this entity
  return r->set(*this, text) ? AttrResult::ok : AttrResult::badText;
}
AttrResult Entity::attrRun(std::string_view name) {
  const AttrRow* r = rowNamed(attrRows(), name);
  if (!r || !r->run) return AttrResult::unknownName;
  const Ptr<Entity> hold(this);
  r->run(*this);
  return AttrResult::ok;
}

}  // namespace platform
