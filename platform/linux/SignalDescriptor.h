#pragma once
#include <sys/signalfd.h>

#include <csignal>
#include <initializer_list>

#include "platform/linux/Fd.h"

namespace platform {

/// A descriptor from which each of these signals can be read (signalfd(2)) that comes from now on;
/// they are blocked for the calling thread and those it starts, for good.
inline Fd signalDescriptor(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int s : signals) sigaddset(&set, s);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return Fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace platform
