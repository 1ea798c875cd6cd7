#pragma once
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "platform/Api.h"

namespace platform {

/// Reference-counted pointer to an object that carries its own count (`addRef`, `release`). The
/// count is not atomic: an object belongs to the thread that made it. A count starts at one and
/// the factory adopts it, so that a constructor may hand out `Ptr(this)` and drop it again.
template <class T>
class Ptr {
 public:
  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  /// Takes a further reference.
  explicit Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->addRef();
  }
  Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& o)
  noexcept : Ptr(o.get()) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& o)
  noexcept : p_(o.detach()) {}
  ~Ptr() {
    if (p_) p_->release();
  }
  Ptr& operator=(Ptr o) noexcept {  // by value: the old object is released last
    std::swap(p_, o.p_);
    return *this;
  }

  /// Takes over the reference that the caller holds (a factory's `new`).
  static Ptr adopt(T* p) noexcept {
    Ptr r;
    r.p_ = p;
    return r;
  }
  /// Gives the reference to the caller, who must release it.
  T* detach() noexcept { return std::exchange(p_, nullptr); }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  template <class U>
  bool operator==(const Ptr<U>& o) const noexcept {
    return p_ == o.get();
  }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
  auto operator<=>(const Ptr& o) const noexcept { return std::compare_three_way{}(p_, o.p_); }

 private:
  T* p_ = nullptr;
};

/// A new object in the pointer that owns it; `a` are the constructor's arguments.
template <class T, class... A>
Ptr<T> make(A&&... a) {
  return Ptr<T>::adopt(new T(std::forward<A>(a)...));
}

/// The count of a type that is not watched. `T` is final; four octets, no virtual function.
template <class T>
class Counted {
 public:
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  void addRef() const noexcept { ++refs_; }
  void release() const noexcept {
    if (--refs_ == 0) delete static_cast<const T*>(this);
  }
  uint32_t refs() const noexcept { return refs_; }

 protected:
  Counted() noexcept = default;
  ~Counted() = default;

 private:
  mutable uint32_t refs_ = 1;
};

}  // namespace platform

template <class T>
struct std::hash<platform::Ptr<T>> {
  size_t operator()(const platform::Ptr<T>& p) const noexcept { return std::hash<T*>{}(p.get()); }
};
