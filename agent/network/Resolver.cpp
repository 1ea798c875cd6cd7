#include "agent/network/Resolver.h"

#include <netdb.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <system_error>

#include "agent/host/Names.h"
#include "agent/host/Printable.h"
#include "agent/host/Priorities.h"
#include "agent/host/Thread.h"
#include "platform/UdpPam.h"
#include "platform/linux/Fd.h"
#include "platform/linux/UdpMessages.h"

namespace agent {
namespace {
/// The host's addresses that a collector can have; if it has none, `problem` says why. Blocks.
Resolver::Addresses resolve(const std::string& host, std::string& problem) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* list = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (error != 0) {
    problem = error == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(error);
    return {};
  }
  Resolver::Addresses found;
  for (const addrinfo* one = list; one; one = one->ai_next) {
    if (one->ai_family != AF_INET && one->ai_family != AF_INET6) continue;
    sockaddr_storage storage{};
    std::memcpy(&storage, one->ai_addr, one->ai_addrlen);
    const IpGenAddr address = destinationOf(storage).addr;
    const std::string what = collectorAddressProblem(address);
    if (!what.empty()) {
      problem = "its address " + address.stringValue() + " is " + what;
    } else if (std::find(found.begin(), found.end(), address) == found.end()) {
      found.push_back(address);
    }
  }
  freeaddrinfo(list);
  if (!found.empty()) {
    problem.clear();
  } else if (problem.empty()) {
    problem = "it has no IP address";
  }
  return found;
}
}  // namespace

struct Resolver::Shared {
  Fd event{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
  std::mutex mutex;
  std::vector<Result> results;

  void add(Result result) {
    const std::lock_guard lock(mutex);
    results.push_back(std::move(result));
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(event.get(), &one, sizeof one);
  }
};

Resolver::Resolver(Ptr<EventLoop> loop, AgentLog& log, std::function<void()> changed)
    : loop_(std::move(loop)),
      log_(log),
      changed_(std::move(changed)),
      shared_(std::make_shared<Shared>()) {
  if (!shared_->event) throw ErrnoException(errno, "eventfd");
  watch_ = loop_->fdWatch(shared_->event.get(), EPOLLIN, [this](uint32_t) { handleResults(); });
}
Resolver::~Resolver() = default;

void Resolver::hostsAre(const std::set<std::string>& hosts, Seconds interval) {
  const bool otherInterval = std::exchange(interval_, interval) != interval;
  std::erase_if(hosts_, [&](const auto& h) { return !hosts.contains(h.first); });
  for (auto* queue : {&waiting_, &waitingFailing_})
    std::erase_if(*queue, [&](const std::string& name) { return !hosts.contains(name); });
  for (const std::string& name : hosts) {
    auto [it, fresh] = hosts_.try_emplace(name);
    Followed& host = it->second;
    if (fresh) {
      host.due = loop_->taskScheduler()->timerTask("agent-resolve", afterAll,
                                                   [this, name] { lookUp(name); });
      lookUp(name);
    } else if (otherInterval) {
      host.due->scheduleLowestIs(interval_);
    }
  }
}

const Resolver::Addresses* Resolver::addresses(const std::string& host) const {
  const auto it = hosts_.find(host);
  return it == hosts_.end() || it->second.addresses.empty() ? nullptr : &it->second.addresses;
}

std::string Resolver::problem(const std::string& host) const {
  const auto it = hosts_.find(host);
  return it == hosts_.end() ? std::string() : it->second.problem;
}

void Resolver::lookUpAll() {
  for (auto& [name, host] : hosts_) host.due->scheduleLowestIs(Seconds(0));
}

void Resolver::lookUp(const std::string& name) {
  Followed& host = hosts_.at(name);
  if (std::exchange(host.underWay, true)) {
    host.again = true;
    return;
  }
  (host.problem.empty() ? waiting_ : waitingFailing_).push_back(name);
  startNext();
}

void Resolver::startNext() {
  while (!waiting_.empty() && underWay_ < lookupsMax) start(waiting_, false);
  while (!waitingFailing_.empty() && underWay_ < lookupsMax && underWayFailing_ < failingMax)
    start(waitingFailing_, true);
}

void Resolver::start(std::deque<std::string>& queue, bool failing) {
  const std::string host = std::move(queue.front());
  queue.pop_front();
  ++underWay_;
  underWayFailing_ += failing;
  try {
    startThread([shared = shared_, host, failing] {
      Result result{host, {}, {}, failing};
      result.addresses = resolve(host, result.problem);
      shared->add(std::move(result));
    }).detach();
  } catch (const std::system_error& e) {
    shared_->add({host, {}, e.what(), failing});
  }
}

void Resolver::handleResults() {
  uint64_t events = 0;
  [[maybe_unused]] const ssize_t n = read(shared_->event.get(), &events, sizeof events);
  std::vector<Result> results;
  {
    const std::lock_guard lock(shared_->mutex);
    results.swap(shared_->results);
  }
  for (Result& result : results) {
    --underWay_;
    underWayFailing_ -= result.wasFailing;
    take(std::move(result));
  }
  startNext();
}

void Resolver::take(Result result) {
  const auto it = hosts_.find(result.host);
  if (it == hosts_.end()) return;
  Followed& host = it->second;
  host.underWay = false;
  const bool failed = result.addresses.empty();
  const bool again = std::exchange(host.again, false);
  // `scheduleLowestIs`: `lookUpAll` may have scheduled an earlier lookup meanwhile.
  host.due->scheduleLowestIs(again ? Seconds(0) : failed ? std::min(interval_, retry) : interval_);
  const bool failing = !host.problem.empty();
  host.problem = failed ? printable(result.problem) : std::string();
  if (failing != failed) {
    const std::string name = "host " + printable(result.host);
    if (failed) {
      log_.warning(name + " cannot be looked up: " + host.problem +
                   (host.addresses.empty() ? "; its collectors wait" : "; its address stays"));
    } else {
      log_.info(name + " can be looked up again");
    }
  }
  if (failed || host.addresses == result.addresses) return;
  host.addresses = std::move(result.addresses);
  changed_();
}

}  // namespace agent
