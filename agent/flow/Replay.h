#pragma once
#include <string>
#include <vector>

#include "agent/flow/FlowPath.h"

namespace agent::flow {

/// A capture file whose packets the software trackers see in place of the
/// interfaces'.
class Replay {
 public:
  /// Looks at the file for its interfaces. Throws std::exception when it cannot
  /// be read, or when `settings`, which come from `configName`, have no tracker
  /// that tracks packets.
  Replay(std::string fileName, const Settings& settings, const std::string& configName,
         Ptr<EventLoop> loop, AgentLog& log);

  const std::string& fileName() const { return fileName_; }
  /// The file's interfaces, which stand for this machine's.
  const Ptr<NetworkList>& networks() const { return networks_; }
  /// Lets the path, which must outlive the reading, track the file's packets.
  /// The loop stops once all paths have exported the file, or failed to.
  void read(FlowPath& path);
  /// What was exported is not all of the file.
  bool failed() const { return failed_; }

 private:
  void handleDone(bool sent);

  const std::string fileName_;
  const Ptr<EventLoop> loop_;
  AgentLog& log_;
  const Ptr<NetworkList> networks_ = networkListFactory();
  std::vector<const FlowPath*> paths_;
  size_t underWay_ = 0;  // of these
  bool failed_ = false;
};

}  // namespace agent::flow
