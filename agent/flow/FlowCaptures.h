#pragma once
#include <map>
#include <string>

#include "platform/Entity.h"

namespace agent::flow {
using namespace platform;

/// What the software trackers capture, to be shown: by "TRACKER in VRF NAME", of VRFs that have an
/// interface of the tracker, "tracking flows" or why not.
class FlowCaptures final : public Entity {
 public:
  const std::map<std::string, std::string>& capture() const { return capture_; }
  /// Empty: there is nothing to capture.
  void captureIs(const std::string& place, const std::string& state) {
    if (state.empty()) {
      capture_.erase(place);
    } else {
      capture_[place] = state;
    }
  }
  AttrRows attrRows() const override {
    static constexpr AttrRow rows[] = {mapRow<&FlowCaptures::capture>("capture")};
    return rows;
  }

 private:
  std::map<std::string, std::string> capture_;
};
inline Ptr<FlowCaptures> flowCapturesFactory() {
  return Ptr<FlowCaptures>::adopt(new FlowCaptures);
}

}  // namespace agent::flow
