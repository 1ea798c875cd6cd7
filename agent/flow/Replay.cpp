#include "agent/flow/Replay.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include "agent/host/Printable.h"

namespace agent::flow {
namespace {
constexpr int piecesMax = 64;  // of a capture, some 16 MiB, to find its interfaces in
}  // namespace

Replay::Replay(std::string fileName, const Settings& settings, const std::string& configName,
               Ptr<EventLoop> loop, AgentLog& log)
    : fileName_(std::move(fileName)), loop_(std::move(loop)), log_(log) {
  const auto& all = settings.trackers;
  if (std::none_of(all.begin(), all.end(), [](const auto& t) {
        return t.second.type == FlowTracking::FlowTrackingType::software;
      }))
    throw std::runtime_error(configName + " has no tracker of type \"software\" to read " +
                             printable(fileName_) + " with");
  CaptureFile file(fileName_);
  Packet packet;
  // Interfaces stand before their packets; a file without any is not read to
  // its end for that.
  file.goOnIs([pieces = 0]() mutable { return ++pieces < piecesMax; });
  file.next(packet);
  const auto network = vrfNetworkFactory(VrfName(std::string(defaultVrf)));
  const std::string base = fileName_.substr(fileName_.rfind('/') + 1);  // npos + 1 is 0
  for (uint32_t n = 1; n <= file.interfaces(); ++n) {
    std::string name(file.interfaceName(n));
    if (name.empty()) name = base.substr(0, 200) + ':' + std::to_string(n);
    network->linkIs(n, name, 0);
  }
  network->presentIs(true);
  networks_->networkIs(network);
}

void Replay::read(FlowPath& path) {
  path.fileIs(std::make_unique<CaptureFile>(fileName_), [this](bool sent) { handleDone(sent); });
  paths_.push_back(&path);
  ++underWay_;
}

void Replay::handleDone(bool sent) {
  failed_ = failed_ || !sent;
  if (--underWay_ > 0) return;
  std::set<std::string> said;  // each path read the same file
  for (const FlowPath* path : paths_) {
    if (!path->file()) continue;
    if (path->file()->done()) {
      const CaptureFile& file = path->file()->file();
      for (const std::string& warning : file.warnings())
        if (said.insert(warning).second) log_.warning(warning);
      if (!file.error().empty() && said.insert(file.error()).second) log_.error(file.error());
      failed_ = failed_ || !file.error().empty();
    }
    log_.info("tracker " + printable(path->tracker()) + ": " + path->summary());
  }
  loop_->stop();
}

}  // namespace agent::flow
