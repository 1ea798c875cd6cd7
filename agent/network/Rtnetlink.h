#pragma once
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "agent/network/Network.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/Fd.h"

struct nlmsghdr;

namespace agent {

/// Writes one rtnetlink message about a link or an address into `network`. Messages of other types
/// and malformed ones change nothing.
void applyRtnetlink(const nlmsghdr& message, VrfNetwork& network);

/// Keeps a `VrfNetwork` in step with the kernel over one rtnetlink socket, made inside the
/// namespace: hears every change from the start, surveys links and addresses first, and again
/// whenever the kernel had to drop messages.
class RtnetlinkMonitor {
 public:
  /// `path`: where the namespace is mounted, or empty for the one the thread is in. Throws
  /// ErrnoException when the namespace cannot be entered or the socket not made. `failed` is
  /// called, with the reason, when the socket is of no more use; the owner then drops the monitor.
  RtnetlinkMonitor(EventLoop& loop, Ptr<VrfNetwork> network, const std::string& path,
                   std::function<void(const std::string& why)> failed);
  ~RtnetlinkMonitor();
  RtnetlinkMonitor(const RtnetlinkMonitor&) = delete;
  RtnetlinkMonitor& operator=(const RtnetlinkMonitor&) = delete;

  /// No survey is under way.
  bool settled() const { return survey_ == Survey::none; }
  /// The owner calls this now and then. False: a survey is under way, and the kernel has sent
  /// nothing since the last call.
  bool alive();
  /// Surveys begun, the first included.
  uint64_t surveys() const { return surveys_; }
  int fd() const { return fd_.get(); }
  const NetnsId& netns() const { return netns_; }  ///< the namespace that it listens in

 private:
  enum class Survey { none, links, addresses };

  void handleReadable();
  void handleMessage(const nlmsghdr& message);
  void surveyAgain();
  void surveyStart();
  void request(uint16_t type);
  void surveyStepDone();

  Ptr<VrfNetwork> network_;
  std::function<void(const std::string&)> failed_;
  Fd fd_;
  NetnsId netns_;
  std::unique_ptr<EventLoop::FdWatch> watch_;
  std::vector<char> buffer_;
  Survey survey_ = Survey::none;
  bool again_ = false;  // the survey under way has gaps: another one follows it
  bool heard_ = false;  // the kernel sent something since the last `alive`
  uint32_t seq_ = 0;    // sequence number of the dump under way
  uint64_t surveys_ = 0;
  bool* gone_ = nullptr;  // set when destroyed inside its own handler
};

}  // namespace agent
