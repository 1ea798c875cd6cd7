#pragma once
#include <string>

namespace platform {

/// Runs the calling thread inside the network namespace mounted at `path` while it lives; an empty
/// path stays where the thread is. Sockets made meanwhile belong to that namespace for good.
/// Throws ErrnoException (ENOENT: no such namespace; EINVAL: not one (yet); EPERM: needs
/// CAP_SYS_ADMIN). Not being able to come back is fatal: the thread would be in the wrong network.
class NetnsScope {
 public:
  explicit NetnsScope(const std::string& path);
  ~NetnsScope();
  NetnsScope(const NetnsScope&) = delete;
  NetnsScope& operator=(const NetnsScope&) = delete;

 private:
  int home_ = -1;  // the namespace to come back to; -1: never left
};

}  // namespace platform
