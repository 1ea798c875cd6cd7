#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "agent/records/FlowRecords.h"
#include "platform/linux/Fd.h"

namespace agent::flow {

/// Encoded records of one layout, back to back.
struct RecordBlock {
  static constexpr size_t size = 32 << 10;
  uint8_t place = 0;  ///< the layout's
  uint32_t used = 0;
  std::array<char, size> octets;
};

/// A bounded ring of pointers, one thread putting and one taking; neither waits.
class BlockRing {
 public:
  explicit BlockRing(size_t capacity) : slots_(capacity + 1) {}
  bool put(RecordBlock* block) {
    const size_t tail = tail_.load(std::memory_order_relaxed);
    const size_t next = tail + 1 == slots_.size() ? 0 : tail + 1;
    if (next == head_.load(std::memory_order_acquire)) return false;
    slots_[tail] = block;
    tail_.store(next, std::memory_order_release);
    return true;
  }
  RecordBlock* take() {
    const size_t head = head_.load(std::memory_order_relaxed);
    if (head == tail_.load(std::memory_order_acquire)) return nullptr;
    RecordBlock* block = slots_[head];
    head_.store(head + 1 == slots_.size() ? 0 : head + 1, std::memory_order_release);
    return block;
  }

 private:
  std::vector<RecordBlock*> slots_;
  alignas(64) std::atomic<size_t> head_{0};
  alignas(64) std::atomic<size_t> tail_{0};
};

/// Carries records from the thread that tracks flows to the agent's thread, in a fixed number of
/// blocks. The writer's side and the reader's side belong to one thread each.
class RecordQueue {
 public:
  /// One block of each layout is being filled; the others wait or are free.
  static constexpr size_t blocks = 64;
  using RecordLens = std::array<uint16_t, packetKinds>;

  /// `lens`: octets of a record, by its layout's place.
  explicit RecordQueue(const RecordLens& lens);
  RecordQueue(const RecordQueue&) = delete;
  RecordQueue& operator=(const RecordQueue&) = delete;

  /// Readable when blocks may have come; the reader's event loop watches it.
  int fd() const { return eventFd_.get(); }

  // The writer's side.
  /// Room for one record, or null: the reader is behind. `written` must follow.
  char* room(uint8_t place);
  void written(uint8_t place, size_t octets) {
    open_[place]->used += static_cast<uint32_t>(octets);
  }
  /// Hands over what has gathered.
  void flush();

  // The reader's side.
  /// The next block, or null. It goes back with `release`.
  RecordBlock* take();
  void release(RecordBlock* block) { free_.put(block); }
  /// Clears what `fd` says; `take` until it says null comes after.
  void heard();

 private:
  void publish(uint8_t place);

  RecordLens lens_;
  std::vector<std::unique_ptr<RecordBlock>> all_;
  BlockRing filled_{blocks};
  BlockRing free_{blocks};
  std::array<RecordBlock*, packetKinds> open_{};  // by place
  platform::Fd eventFd_;
};

}  // namespace agent::flow
