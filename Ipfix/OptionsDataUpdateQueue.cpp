#include "Ipfix/OptionsDataUpdateQueue.h"

namespace FlowTracking {

std::string UpdateSetQueue::stringValue() const {
  return ValueWriter("FlowTracking::UpdateSetQueue")
      .attr("setId", setId_)
      .attr("record", size())
      .str();
}

UpdateSetQueue& UpdateQueue::queue_p(TemplateId setId) {
  if (const auto it = update_.find(setId); it != update_.end()) return it->second;
  if (!spare_) return update_.try_emplace(setId, setId).first->second;
  spare_.key() = setId;
  spare_.mapped().setId_ = setId;
  return update_.insert(std::move(spare_)).position->second;
}

}  // namespace FlowTracking
