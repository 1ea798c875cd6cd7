#pragma once
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace cli {

/// SIGINT and SIGTERM as something to poll: readable once one came.
class StopSignals {
 public:
  StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  }
  ~StopSignals() { close(fd_); }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

}  // namespace cli
