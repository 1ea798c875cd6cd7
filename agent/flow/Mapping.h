#pragma once
#include <cstddef>

namespace agent::flow {

/// An array of zeroed memory straight from the kernel: pages are there once they are touched, large
/// ones where the kernel has them, and all go back at once. T needs no construction.
template <class T>
class Mapping {
 public:
  Mapping() = default;
  explicit Mapping(size_t n);
  ~Mapping();
  Mapping(Mapping&& o) noexcept : data_(o.data_), size_(o.size_) { o.data_ = nullptr; }
  Mapping& operator=(Mapping&& o) noexcept;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  size_t size() const { return size_; }
  /// Gives back the memory of n elements, which are zero from then on. They fill whole pages.
  void forget(size_t first, size_t n);

 private:
  T* data_ = nullptr;
  size_t size_ = 0;
};

void* mapZeroed(size_t octets);  ///< throws std::bad_alloc
void unmap(void* at, size_t octets) noexcept;
void zeroPages(void* at, size_t octets) noexcept;

template <class T>
Mapping<T>::Mapping(size_t n) : data_(static_cast<T*>(mapZeroed(n * sizeof(T)))), size_(n) {}
template <class T>
Mapping<T>::~Mapping() {
  if (data_) unmap(data_, size_ * sizeof(T));
}
template <class T>
void Mapping<T>::forget(size_t first, size_t n) {
  zeroPages(data_ + first, n * sizeof(T));
}
template <class T>
Mapping<T>& Mapping<T>::operator=(Mapping&& o) noexcept {
  if (this != &o) {
    if (data_) unmap(data_, size_ * sizeof(T));
    data_ = o.data_;
    size_ = o.size_;
    o.data_ = nullptr;
  }
  return *this;
}

}  // namespace agent::flow
