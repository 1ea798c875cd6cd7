#pragma once
#include <memory>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/TaskScheduler.h"
#include "platform/sim/SimPlatform.h"

/// One implementation of the platform, as the shared suite sees it.
class Host {
 public:
  virtual ~Host() = default;
  virtual platform::Platform& platform() = 0;
  virtual platform::Ptr<platform::TaskScheduler> scheduler() = 0;
  /// Lets at least this much time pass; what comes due runs.
  virtual void pass(platform::Seconds d) = 0;
  /// Where datagrams may be sent to so that `received` shows them: two ports of each family's first
  /// address (10.99.0.1, 2001:db8::1).
  virtual uint16_t sinkPort(bool ipv6, int i) = 0;
  /// Everything that arrived there, in order per sink; waits until `n` are there, or some seconds.
  virtual std::vector<platform::SimDatagram> received(size_t n) = 0;
};

std::unique_ptr<Host> simHost();
/// In the process's private network (see support::privateNetwork).
std::unique_ptr<Host> linuxHost();
