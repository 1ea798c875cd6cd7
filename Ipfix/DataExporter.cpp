#include "Ipfix/DataExporter.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/Assert.h"

namespace FlowTracking {

Ptr<DataRecord> DataRecord::make(std::string_view data) {
  TARN_ASSERT(data.size() < UINT32_MAX / 2);
  // At least a pointer's room, for a record that is appended to later.
  const auto capacity = static_cast<uint32_t>(std::max(data.size(), sizeof(uint8_t*)));
  void* block = ::operator new(sizeof(DataRecord) + capacity);
  auto* record = new (block) DataRecord(capacity);
  if (!data.empty()) std::memcpy(record->inlineArea(), data.data(), data.size());
  record->len_ = static_cast<uint32_t>(data.size());
  return Ptr<DataRecord>::adopt(record);
}
Ptr<DataRecord> dataRecordFactory(std::string_view data) { return DataRecord::make(data); }

void DataRecord::append(const unsigned char* bytes, unsigned int n) {
  if (n == 0) return;
  TARN_ASSERT_AS(refs_ == 1, "refs() == 1");
  TARN_ASSERT(n < UINT32_MAX / 4 && len_ < UINT32_MAX / 4);
  const uint32_t needed = len_ + n;
  if (needed > capacity_) {
    const uint32_t capacity = std::max(needed, 2 * len_);
    auto* larger = new uint8_t[capacity];
    std::memcpy(larger, octets(), len_);
    std::memcpy(larger + len_, bytes, n);  // before the old block goes: `bytes` may lie in it
    if (moved_) delete[] octets();
    std::memcpy(inlineArea(), &larger, sizeof larger);
    moved_ = 1;
    capacity_ = capacity;
  } else {
    std::memcpy(octets() + len_, bytes, n);
  }
  len_ = needed;
}

void DataRecord::destroy() const noexcept {
  if (moved_) delete[] octets();
  this->~DataRecord();
  ::operator delete(const_cast<DataRecord*>(this));
}

}  // namespace FlowTracking
