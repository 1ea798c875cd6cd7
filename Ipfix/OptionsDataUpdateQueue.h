#pragma once
#include <map>
#include <string>

#include "Ipfix/DataExporter.h"
#include "platform/Ring.h"
#include "platform/Text.h"
#include "platform/Values.h"

/// Single changed records on their way into messages, queued by template.
namespace FlowTracking {

/// Those of one template, first in, first out. Room for a few stays: most changes come alone.
class TARN_API UpdateSetQueue {
 public:
  explicit UpdateSetQueue(TemplateId setId) : setId_(setId) {}
  TemplateId setId() const { return setId_; }
  size_t size() const { return record_.size(); }
  bool empty() const { return record_.empty(); }
  /// Index 0 leaves next; null behind the last.
  Ptr<const DataRecord> record(uint32_t index) const {
    return index < size() ? record_[index] : nullptr;
  }
  void recordEnq(Ptr<const DataRecord> record) { record_.emplace_back() = std::move(record); }
  /// Removes and returns the one that leaves next; there must be one.
  Ptr<const DataRecord> recordDel() {
    auto record = std::move(record_.front());
    record_.pop_front();
    if (record_.empty() && record_.capacity() > 64) recordDelAll();
    return record;
  }
  void recordDelAll() { record_ = {}; }
  std::string stringValue() const;  ///< the "Value(...)" form, the records as their number

 private:
  friend class UpdateQueue;
  TemplateId setId_;
  Ring<Ptr<const DataRecord>> record_;
};

/// Those of all templates; they leave in the order of the template ids.
class TARN_API UpdateQueue {
 public:
  using Queues = std::map<TemplateId, UpdateSetQueue>;
  /// By template id; none is empty.
  const Queues& update() const { return update_; }
  bool empty() const { return update_.empty(); }
  /// Octets of all records.
  uint32_t bytes() const { return bytes_; }
  void enq(TemplateId setId, Ptr<const DataRecord> record) {
    if (!last_ || last_->setId() != setId) last_ = &queue_p(setId);
    bytes_ += static_cast<uint32_t>(record->dataLen());
    last_->recordEnq(std::move(record));
  }
  struct Update {
    TemplateId setId;
    Ptr<const DataRecord> record;
  };
  /// Removes and returns the one that leaves next; there must be one.
  [[gnu::always_inline]] Update deq() {
    const auto it = update_.begin();
    Update update{it->first, it->second.recordDel()};
    bytes_ -= static_cast<uint32_t>(update.record->dataLen());
    if (it->second.empty()) {
      last_ = nullptr;
      spare_ = update_.extract(it);
    }
    return update;
  }

 private:
  UpdateSetQueue& queue_p(TemplateId setId);

  Queues update_;
  // The queue that was emptied last, for the next template: a change that comes alone costs no
  // allocation.
  Queues::node_type spare_;
  UpdateSetQueue* last_ = nullptr;  // that a record was added to; null: none, or it left
  uint32_t bytes_ = 0;
};

}  // namespace FlowTracking
