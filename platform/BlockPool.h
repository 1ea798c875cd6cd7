#pragma once
#include <cstddef>
#include <iterator>
#include <new>
#include <utility>

namespace platform {

#if defined(__SANITIZE_ADDRESS__)
#define TARN_NO_POOLS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_NO_POOLS 1
#endif
#endif

/// Memory of what comes and goes with every message: a block that is given back is the next one
/// taken, as long as they are of one size. A sanitizer shall see every use of freed memory, so
/// there is no pool when one is at work. For use as `thread_local`; never destroyed, its blocks
/// stay the program's.
class BlockPool {
 public:
  void* take(size_t size) {
    if (!free_ || size != size_) return ::operator new(size);
    Block* block = free_;
    free_ = block->next;
    --count_;
    return block;
  }
  void give(void* p, [[maybe_unused]] size_t size) {
#ifndef TARN_NO_POOLS
    if (size >= sizeof(Block) && count_ < most && (size == size_ || !free_)) {
      size_ = size;
      free_ = new (p) Block{free_};
      ++count_;
      return;
    }
#endif
    ::operator delete(p);
  }

 private:
  static constexpr size_t most = 1 << 14;
  struct Block {
    Block* next;
  };
  Block* free_ = nullptr;
  size_t size_ = 0;
  size_t count_ = 0;
};

/// The same for small objects of one size, which lie side by side in the order they are made: a
/// loop over many of them is a walk through memory.
template <size_t size>
class SlabPool {
 public:
#ifdef TARN_NO_POOLS
  void* take() { return ::operator new(size); }
  void give(void* p) { ::operator delete(p); }
#else
  void* take() {
    if (!free_) makeSlab();
    return std::exchange(free_, free_->next);
  }
  void give(void* p) { free_ = new (p) Block{free_}; }

 private:
  struct Block {
    Block* next;
  };
  struct Slab {
    Slab* previous;  // or a leak checker sees nothing that points here
    std::byte blocks[64][size];
  };
  static_assert(size % alignof(void*) == 0);

  void makeSlab() {
    auto* slab = new Slab;
    slab->previous = std::exchange(slabs_, slab);
    for (size_t i = std::size(slab->blocks); i > 0; --i) give(slab->blocks[i - 1]);
  }

  Block* free_ = nullptr;
  Slab* slabs_ = nullptr;
#endif
};

}  // namespace platform
