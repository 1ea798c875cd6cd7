#pragma once
#include <memory>
#include <utility>

namespace platform {

/// A queue whose places are used again: it allocates when it becomes longer than it ever was.
template <class T>
class Ring {
 public:
  bool empty() const { return size_ == 0; }
  size_t size() const { return size_; }
  size_t capacity() const { return capacity_; }
  T& operator[](size_t i) { return place_[(first_ + i) & (capacity_ - 1)]; }
  const T& operator[](size_t i) const { return place_[(first_ + i) & (capacity_ - 1)]; }
  T& front() { return (*this)[0]; }
  /// The places as they are now, for a loop over many: until something is added.
  class View {
   public:
    T& operator[](size_t i) const { return place_[(first_ + i) & mask_]; }

   private:
    friend class Ring;
    View(T* place, size_t first, size_t mask) : place_(place), first_(first), mask_(mask) {}
    T* place_;
    size_t first_;
    size_t mask_;
  };
  View view() { return {place_.get(), first_, capacity_ - 1}; }
  /// A place at the end, as `T()` makes it.
  T& emplace_back() {
    if (size_ == capacity_) grow();
    return (*this)[size_++];
  }
  void pop_front(size_t n = 1) {
    const View all = view();
    for (size_t i = 0; i < n; ++i) {
      std::destroy_at(&all[i]);
      std::construct_at(&all[i]);
    }
    first_ += n;
    size_ -= n;
  }

 private:
  [[gnu::noinline]] void grow() {
    const size_t larger = capacity_ == 0 ? 8 : 2 * capacity_;
    std::unique_ptr<T[]> place(new T[larger]);
    for (size_t i = 0; i < size_; ++i) place[i] = std::move((*this)[i]);
    place_ = std::move(place);
    capacity_ = larger;
    first_ = 0;
  }

  std::unique_ptr<T[]> place_;
  size_t capacity_ = 0;  // a power of two
  size_t first_ = 0;
  size_t size_ = 0;
};

}  // namespace platform
