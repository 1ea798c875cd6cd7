#pragma once
#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/Ptr.h"

namespace FlowTracking {

/// The octets of one encoded record, exactly as they go on the wire. Comes by the million, so it
/// is one block: 16 octets of header and then the record. Not watched.
class TARN_API DataRecord final {
 public:
  static Ptr<DataRecord> make(std::string_view data);
  DataRecord(const DataRecord&) = delete;
  DataRecord& operator=(const DataRecord&) = delete;

  std::string_view data() const { return {reinterpret_cast<const char*>(octets()), len_}; }
  uint32_t dataLen() const { return len_; }
  /// Appends `n` octets, which may be the record's own. Only its maker may, before anybody else
  /// holds a reference (asserted): queues and tables count the octets of what they hold.
  void append(const unsigned char* bytes, unsigned int n);

  void addRef() const noexcept { ++refs_; }
  void release() const noexcept {
    if (--refs_ == 0) destroy();
  }

 private:
  friend class OptionsDataSource;
  /// No source has given the record a place.
  static constexpr uint32_t noSlot = UINT32_MAX;

  explicit DataRecord(uint32_t capacity) : capacity_(capacity) {}
  ~DataRecord() = default;
  void destroy() const noexcept;
  /// Behind the header: the octets, or, once the record outgrew its block, the pointer to them.
  uint8_t* inlineArea() const {
    return reinterpret_cast<uint8_t*>(const_cast<DataRecord*>(this) + 1);
  }
  uint8_t* octets() const {
    uint8_t* const area = inlineArea();
    if (!moved_) [[likely]]
      return area;
    uint8_t* moved = nullptr;
    std::memcpy(&moved, static_cast<const void*>(area), sizeof moved);
    return moved;
  }

  mutable uint32_t refs_ = 1;
  uint32_t len_ = 0;
  uint32_t capacity_ : 31;
  uint32_t moved_ : 1 = 0;          // the octets are in a block of their own
  mutable uint32_t slot_ = noSlot;  // its place in the one source that holds it
};
static_assert(sizeof(DataRecord) == 16, "a 17-octet record must fit a 48-octet heap block");

TARN_API Ptr<DataRecord> dataRecordFactory(std::string_view data = {});

}  // namespace FlowTracking
