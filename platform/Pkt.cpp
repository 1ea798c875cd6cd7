#include "platform/Pkt.h"

#include <algorithm>

#include "platform/BlockPool.h"

namespace platform {
namespace {
bool ptrWithinRegion(const uint8_t* p, const uint8_t* region, uint32_t size) {
  return p >= region && p <= region + size;
}
thread_local constinit BlockPool pool;
}  // namespace

void* Pkt::operator new(size_t objectSize, uint32_t blockSize) {
  return pool.take(objectSize + blockSize);
}
void Pkt::operator delete(void* p, uint32_t blockSize) { pool.give(p, sizeof(Pkt) + blockSize); }
void Pkt::operator delete(Pkt* p, std::destroying_delete_t) {
  const bool grown = p->larger_ != nullptr;  // then nobody knows what the first block was
  const size_t len = sizeof(Pkt) + p->size_;
  p->~Pkt();
  if (grown) {
    ::operator delete(p);
  } else {
    pool.give(p, len);
  }
}

// The block is not cleared: a message is written over all of it.
Pkt::Pkt(uint32_t size) : size_(size), buffer_(reinterpret_cast<uint8_t*>(this + 1)) {}
Ptr<Pkt> Pkt::ofSize(uint32_t size) { return Ptr<Pkt>::adopt(new (size) Pkt(size)); }

void Pkt::headRoomIs(uint32_t n) {
  TARN_ASSERT(len_ == 0 && n <= size_);
  head_ = n;
}
void Pkt::dataHeadInc(uint32_t n) {
  TARN_ASSERT_AS(n <= head_ && ptrWithinRegion(data() - n, buffer_, size_),
                 "ptrWithinRegion( data_, buffer_, size_ )");
  head_ -= n;
  len_ += n;
}
void Pkt::dataTailInc(uint32_t n) {
  TARN_ASSERT(n <= UINT32_MAX / 2 - head_ - len_);
  const uint32_t needed = head_ + len_ + n;
  if (needed > size_) {
    const uint32_t size = std::max(needed, 2 * size_);
    std::unique_ptr<uint8_t[]> larger(new uint8_t[size]);
    if (len_ > 0) std::memcpy(larger.get() + head_, data(), len_);
    larger_ = std::move(larger);
    buffer_ = larger_.get();
    size_ = size;
  }
  std::memset(buffer_ + head_ + len_, 0, n);
  len_ += n;
}

}  // namespace platform
