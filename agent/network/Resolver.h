#pragma once
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "agent/host/AgentLog.h"
#include "platform/Ip.h"
#include "platform/linux/EventLoop.h"

namespace agent {

/// Follows the addresses of hosts, by name. A lookup blocks for as long as a name server likes, so
/// each runs on a thread of its own, some at a time, and its result comes by way of the loop. Hosts
/// whose last lookup failed come after all others and have few of the threads: name servers that do
/// not answer take seconds for each.
///
/// A lookup that fails changes nothing: what was found last stays. The log has one line when a
/// host's lookups begin to fail, and one when they succeed again.
class Resolver {
 public:
  using Addresses = std::vector<IpGenAddr>;  ///< in the order in which they are to be tried

  /// The loop calls `changed` when the addresses of some host have changed.
  Resolver(Ptr<EventLoop> loop, AgentLog& log, std::function<void()> changed);
  /// Does not wait for lookups that are under way.
  ~Resolver();
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  /// The hosts to follow from now on, and the time between two lookups of one. New ones are looked
  /// up at once; what is known of others is forgotten.
  void hostsAre(const std::set<std::string>& hosts, Seconds interval);
  /// Null while no address was found, and for hosts that are not followed. Never empty.
  const Addresses* addresses(const std::string& host) const;
  /// Why the last lookup failed; empty if it did not fail, or there was none.
  std::string problem(const std::string& host) const;
  /// Looks all hosts up now. Called when sending to the known addresses met errors.
  void lookUpAll();

  static constexpr Seconds retry{5};  ///< after a failure, when the interval is not shorter
  static constexpr size_t lookupsMax = 32;
  static constexpr size_t failingMax = 8;  ///< of those, for hosts whose last lookup failed

 private:
  struct Followed {
    Addresses addresses;
    std::string problem;  // of the last lookup; empty: it found something
    bool underWay = false;
    bool again = false;  // asked for while one was under way, which may have looked before
    std::unique_ptr<TimerTask> due;
  };
  struct Result {
    std::string host;
    Addresses addresses;
    std::string problem;
    bool wasFailing;
  };
  struct Shared;

  void lookUp(const std::string& host);
  void startNext();
  void start(std::deque<std::string>& queue, bool failing);
  void handleResults();
  void take(Result result);

  Ptr<EventLoop> loop_;
  AgentLog& log_;
  std::function<void()> changed_;
  Seconds interval_{60};
  std::map<std::string, Followed> hosts_;
  std::deque<std::string> waiting_;
  std::deque<std::string> waitingFailing_;  // those whose last lookup failed
  size_t underWay_ = 0;
  size_t underWayFailing_ = 0;      // of those
  std::shared_ptr<Shared> shared_;  // outlives this object where a lookup does
  std::unique_ptr<EventLoop::FdWatch> watch_;
};

}  // namespace agent
