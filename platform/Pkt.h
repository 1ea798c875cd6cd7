#pragma once
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "platform/Assert.h"
#include "platform/Ptr.h"

namespace platform {

/// A block of octets with a data region inside it that grows and shrinks at head and tail.
///
///   buffer_ |  head room  |  data (bytes())  |  tail room  |  size_ octets in all
///
/// Offsets count from the start of the data. A packet that was handed to an endpoint's
/// transmission is shared with it: see UdpPam::txPktIs for what may still be written.
class TARN_API Pkt final : public Counted<Pkt> {
 public:
  /// A packet over a fresh block of `size` octets, its data empty at the start of the block.
  static Ptr<Pkt> ofSize(uint32_t size);

  uint32_t bufSize() const { return size_; }
  uint32_t bytes() const { return len_; }
  const uint8_t* data() const { return buffer_ + head_; }
  std::span<const uint8_t> octets() const { return {data(), len_}; }

  /// Write access to `n` octets of the data at `offset`; asserts that they are inside the data.
  uint8_t* at(uint32_t offset, uint32_t n) {
    TARN_ASSERT(offset <= len_ && n <= len_ - offset);
    return buffer_ + head_ + offset;
  }
  /// Makes the data span the whole block; its content is what the block holds.
  void dataWholeIs() {
    head_ = 0;
    len_ = size_;
  }
  /// Leaves `n` octets free before the data; only while the data is empty.
  void headRoomIs(uint32_t n);
  /// Prepends `n` octets; asserts that there is room for them.
  void dataHeadInc(uint32_t n);
  /// Appends `n` zero octets, into a larger block when this one is full.
  void dataTailInc(uint32_t n);
  /// Drops `n` octets at the tail; asserts that the data holds them.
  void dataTailDec(uint32_t n) {
    TARN_ASSERT(n <= len_);
    len_ -= n;
  }

 private:
  friend class Counted<Pkt>;
  explicit Pkt(uint32_t size);
  ~Pkt() = default;
  // The block lies behind the object, in one allocation, until the packet outgrows it.
  static void* operator new(size_t objectSize, uint32_t blockSize);
  static void operator delete(Pkt* p, std::destroying_delete_t);
  static void operator delete(void* p, uint32_t blockSize);

  uint32_t head_ = 0;
  uint32_t len_ = 0;
  uint32_t size_;
  uint8_t* buffer_;
  std::unique_ptr<uint8_t[]> larger_;
};

}  // namespace platform
