#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/SharedTable.h"
#include "platform/TaskScheduler.h"

/// The platform of unit tests: time that moves only when a test moves it, endpoints that keep what
/// was sent, a table in plain memory. Same contracts, same test suite as the Linux one. Endpoints
/// send at once, unless a test gives them a pace; their local ports count up from 40000, in the
/// order of opening. What is sent to where another endpoint of the same namespace is bound arrives
/// there, too. It asserts that a transmitted packet changes in its first `UdpPam::restampLen`
/// octets only until the task is over, and that no task reschedules itself for ever without letting
/// time pass.
namespace platform {

/// One datagram as it would have left.
struct SimDatagram {
  std::string endpoint;  ///< the endpoint's name
  IpGenAddr src;
  IpGenAddr dst;
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;
  uint8_t tos = 0;
  double time = 0;  ///< wall clock
  std::vector<uint8_t> octets;
};

class SimPlatform : public Platform {
 public:
  /// Moves time forward by `d`, running each task that comes due, at its time and in order.
  virtual void advance(Seconds d) = 0;
  /// Runs what is due now.
  void runDue() { advance(Seconds(0)); }
  /// One round: runs what is due now; what is scheduled meanwhile waits, be it without delay.
  virtual void runRound() = 0;
  virtual Ptr<TaskSchedulerRoot> schedulerRoot() = 0;
  virtual Ptr<TaskScheduler> scheduler() = 0;
  /// Sets the wall clock; timers do not notice.
  virtual void wallClockIs(double utcSeconds) = 0;
  /// The so manieth question `shouldYield` of one run, and each after it, hears yes (1: every
  /// question); 0 (default): never.
  virtual void yieldAfterIs(unsigned questions) = 0;

  /// Everything sent since the last call, in order.
  virtual std::vector<SimDatagram> takeSent() = 0;
  /// A namespace exists from the start only if it is named here; the default one always does.
  virtual void namespaceIs(const std::string& name, bool exists) = 0;
  /// Errno with which endpoints refuse to open (0: they open), and to send.
  virtual void openErrorIs(int err) = 0;
  virtual void sendErrorIs(int err) = 0;
  /// Endpoints send so many datagrams a millisecond, the others wait; 0 (default): all at once.
  /// `before`: what an endpoint counts as waiting besides, while anything waits.
  virtual void paceIs(size_t perMs, uint64_t before = 0) = 0;
  virtual size_t openEndpoints() const = 0;  ///< endpoints in service now

  /// Trace lines and log messages ("NAME: text") since the last call.
  virtual std::vector<std::string> takeTrace() = 0;
  virtual std::vector<std::string> takeLog() = 0;
  /// Lines up to this level are kept; -1 (default): none.
  virtual void traceLevelIs(int level) = 0;
};
std::unique_ptr<SimPlatform> simPlatform();

/// A table in this process's memory.
Ptr<SharedTable> simTableFactory(size_t keyLen, size_t valueLen, size_t capacity);

}  // namespace platform
