#pragma once
#include <sys/signalfd.h>

#include <csignal>

#include "platform/linux/Fd.h"

namespace platform {

/// A descriptor that is readable once SIGINT or SIGTERM came. Both are blocked from now on.
inline Fd stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return Fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace platform
