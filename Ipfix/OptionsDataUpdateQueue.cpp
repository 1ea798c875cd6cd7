#include "Ipfix/OptionsDataUpdateQueue.h"

namespace FlowTracking {

Ptr<const DataRecord> UpdateSetQueue::recordDel() {
  auto record = std::move(record_.front());
  record_.pop_front();
  if (record_.empty() && record_.capacity() > 64) recordDelAll();
  return record;
}
std::string UpdateSetQueue::stringValue() const {
  return ValueWriter("FlowTracking::UpdateSetQueue")
      .attr("setId", setId_)
      .attr("record", size())
      .str();
}

void UpdateQueue::enq(TemplateId setId, Ptr<const DataRecord> record) {
  auto it = update_.find(setId);
  if (it == update_.end()) {
    if (spare_) {
      spare_.key() = setId;
      spare_.mapped().setId_ = setId;
      it = update_.insert(std::move(spare_)).position;
    } else {
      it = update_.try_emplace(setId, setId).first;
    }
  }
  bytes_ += static_cast<uint32_t>(record->dataLen());
  it->second.recordEnq(std::move(record));
}
UpdateQueue::Update UpdateQueue::deq() {
  const auto it = update_.begin();
  Update update{it->first, it->second.recordDel()};
  bytes_ -= static_cast<uint32_t>(update.record->dataLen());
  if (it->second.empty()) spare_ = update_.extract(it);
  return update;
}

}  // namespace FlowTracking
