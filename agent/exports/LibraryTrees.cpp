#include "agent/exports/LibraryTrees.h"

namespace agent {

const LibraryTree& LibraryTrees::tree(Type type) const {
  static const LibraryTree none;
  const auto found = trees_.find(type);
  return found == trees_.end() ? none : found->second;
}

LibraryTree& LibraryTrees::make(Type type) {
  LibraryTree& t = trees_[type];
  if (!t.config) {
    t.config = HwFlowTracking::configFactory();
    t.status = HwFlowTracking::statusFactory();
    t.statistics = host_.statistics;
  }
  return t;
}

void LibraryTrees::followTrackers() {
  for (auto& [type, t] : trees_) {
    if (t.config->ftConfig().empty()) {
      t.releaseReactors();
    } else if (!t.templateSm) {
      const auto scheduler = host_.loop->taskScheduler();
      t.info = FlowTracking::flowTrackingInfoFactory(type);
      t.infoSm = FlowTracking::flowTrackingInfoSmFactory(host_.loop, t.config, t.info,
                                                         host_.ipfix->agentInfo());
      t.templateSm = FlowTracking::templateSmFactory(host_.configReq, t.config, t.status, t.info,
                                                     host_.ipfix->elementIdCollection(),
                                                     host_.statistics, scheduler);
      t.optionsDataSm = FlowTracking::optionsDataManagerSmFactory(
          t.config, t.status, t.info, host_.interfaces, host_.vrfs, host_.statistics, scheduler);
    }
  }
}

void LibraryTrees::releaseReactors() {
  for (auto& [type, t] : trees_) t.releaseReactors();
}

}  // namespace agent
