#pragma once
#include <functional>
#include <memory>
#include <string>

#include "agent/host/AgentLog.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/Fd.h"

namespace agent {

/// Hears by inotify which names come and go in a directory, which may itself come and go.
class DirectoryWatch {
 public:
  struct Handlers {
    std::function<void(const std::string& name)> name;  ///< this name came or went
    /// The directory came or went, or inotify had to drop events: any name may have.
    std::function<void()> all;
  };
  /// `dir` has no slash at its end. Without inotify no handler is called, and the log says so.
  DirectoryWatch(EventLoop& loop, std::string dir, AgentLog& log, Handlers handlers);

  /// Watches the directory, or its parent while it does not exist. Call it now and then: inotify
  /// does not report that a directory appears together with its parent.
  void attach();

 private:
  void handleReadable();

  const std::string dir_;
  std::string parent_;
  std::string base_;  // the directory's name in the parent
  const Handlers handlers_;
  platform::Fd fd_;
  int dirWatch_ = -1;     // inotify's number of the watch on the directory; -1: none
  int parentWatch_ = -1;  // on the parent
  std::unique_ptr<EventLoop::FdWatch> watch_;
};

}  // namespace agent
