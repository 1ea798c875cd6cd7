#include "agent/network/Networks.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "agent/host/Names.h"
#include "agent/host/Printable.h"
#include "platform/UdpPam.h"

namespace agent {
namespace {
constexpr TaskPriority priority = 2;
constexpr Seconds tick{2.0};
// `ip netns add` makes the file first and mounts the namespace on it a moment later.
constexpr Seconds firstRetry{0.01};
constexpr int patience = 8;  // retries, each after twice the time: 2.5 s; then `tick` does
}  // namespace

struct Networks::Entry {
  Ptr<VrfNetwork> network;
  std::string fileName;  // empty: the namespace that the agent is in
  std::string path;
  std::unique_ptr<RtnetlinkMonitor> monitor;
  bool there = false;   // the file existed when `review` last looked
  bool wanted = false;  // `network` was called for this VRF
  bool failed = false;  // the monitor failed, or the kernel does not answer it
  int notYet = 0;       // reviews that found a file which is no namespace yet
  std::string said;     // the state that the log last had a line about
};

Networks::Networks(Ptr<EventLoop> loop, std::string netnsDir, AgentLog& log)
    : loop_(std::move(loop)), dir_(std::move(netnsDir)), log_(log) {
  while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
  const auto scheduler = loop_->taskScheduler();
  soonTask_ = scheduler->timerTask("networks-soon", priority, [this] { handleSoon(); });
  tickTask_ = scheduler->timerTask("networks-tick", priority, [this] { handleTick(); });
  tickTask_->scheduleIs(tick);
  watch_ = std::make_unique<DirectoryWatch>(
      *loop_, dir_, log_,
      DirectoryWatch::Handlers{[this](const std::string& name) { handleName(name); },
                               [this] {
                                 reviewAll();
                                 reviewSoon();
                               }});
  network(VrfName(std::string(defaultVrf)));
  scan();
}
Networks::~Networks() = default;

Ptr<VrfNetwork> Networks::network(const VrfName& vrf) {
  Entry& e = entry(vrf);
  e.wanted = true;
  return e.network;
}

void Networks::keepOnly(const std::set<VrfName>& vrfs) {
  for (auto& [vrf, entry] : entries_)
    entry->wanted = entry->network->isDefault() || vrfs.contains(vrf);
  forget();
}

/// The VRF's entry. A new one is reviewed at once.
Networks::Entry& Networks::entry(const VrfName& vrf) {
  auto& entry = entries_[vrf];
  if (entry) return *entry;
  entry = std::make_unique<Entry>();
  Entry& made = *entry;
  made.network = vrfNetworkFactory(vrf);
  made.fileName = namespaceOf(vrf).stringValue();
  if (!made.fileName.empty()) made.path = dir_ + '/' + made.fileName;
  review(made);
  if (made.notYet > 0) reviewSoon();
  list_->networkIs(made.network);
  return made;
}

/// The VRF that a namespace file of this name belongs to. If no VRF can have the name after the
/// prefix, the log says so once.
std::optional<VrfName> Networks::vrfOf(const std::string& fileName) {
  constexpr std::string_view prefix = "ns-";
  if (!fileName.starts_with(prefix)) return std::nullopt;
  const std::string name = fileName.substr(prefix.size());
  std::string problem = vrfNameProblem(name);
  if (problem.empty() && printable(name) != name) problem = "a VRF's name is UTF-8";
  if (name == defaultVrf) problem = "VRF default is the namespace that tarnflowd was started in";
  if (problem.empty()) return VrfName(name);
  if (skipped_.insert(fileName).second)
    log_.warning("namespace " + dir_ + '/' + fileName + " is not looked at: " + problem);
  return std::nullopt;
}

/// Makes an entry for a file that has none. The log says once that a symbolic link leads nowhere.
void Networks::look(const std::string& fileName) {
  const auto vrf = vrfOf(fileName);
  if (!vrf || entries_.contains(*vrf)) return;
  const std::string path = dir_ + '/' + fileName;
  if (netnsIdOf(path)) {
    skipped_.erase(fileName);
    entry(*vrf);
    return;
  }
  const std::string why = std::strerror(errno);
  struct stat link {};
  if (lstat(path.c_str(), &link) == 0 && skipped_.insert(fileName).second)
    log_.warning("namespace " + path + " is not looked at: what it links to: " + why);
}

/// Looks for namespace files that have no entry yet.
void Networks::scan() {
  std::set<std::string> names;
  std::error_code error;  // a directory that is not there has none
  for (std::filesystem::directory_iterator it(dir_, error), end; !error && it != end;
       it.increment(error))
    names.insert(it->path().filename().string());
  std::erase_if(skipped_, [&](const std::string& name) { return !names.contains(name); });
  for (const std::string& name : names) look(name);
}

/// Drops the entries whose file is gone and whose network nobody asked for.
void Networks::forget() {
  std::erase_if(entries_, [this](const auto& e) {
    const Entry& entry = *e.second;
    if (entry.wanted || entry.there) return false;
    list_->networkDel(e.first);
    return true;
  });
}

bool Networks::settled() const {
  for (const auto& [vrf, entry] : entries_)
    if (entry->monitor && !entry->monitor->settled()) return false;
  return true;
}

void Networks::say(Entry& entry, Severity severity, const std::string& what) {
  if (entry.said == what) return;
  entry.said = what;
  const std::string where =
      entry.fileName.empty() ? "the default namespace" : "namespace " + entry.path;
  log_.say(severity, where + ' ' + what);
}

void Networks::close(Entry& entry) {
  entry.monitor.reset();
  entry.failed = false;
  entry.network->presentIs(false);
}

void Networks::open(Entry& entry) {
  entry.monitor = std::make_unique<RtnetlinkMonitor>(
      *loop_, entry.network, entry.path, [this, e = &entry](const std::string& why) {
        log_.warning("rtnetlink in VRF " + e->network->vrf().stringValue() + ": " + why);
        e->failed = true;
        ++e->notYet;
        reviewSoon();
      });
  entry.failed = false;
}

void Networks::review(Entry& entry) {
  const bool named = !entry.fileName.empty();
  const auto found = named ? netnsIdOf(entry.path) : NetnsId{};
  if (entry.monitor && found != entry.monitor->netns()) close(entry);
  entry.there = found.has_value();
  if (!found) {
    entry.notYet = 0;
    // The log has a line for a namespace that was never there, too.
    say(entry, Severity::info, entry.said.empty() ? "is not there" : "is gone");
    return;
  }
  if (entry.monitor && !entry.failed) return;
  try {
    open(entry);  // in place of one that failed: its survey finds what changed meanwhile
  } catch (const ErrnoException& e) {
    const int err = e.code().value();
    close(entry);
    // The file was made and no namespace is mounted on it yet (it has mode 0, which only stops
    // users other than root), or it is gone again.
    if (err == EINVAL || err == ENOENT || err == EACCES) {
      if (++entry.notYet == patience)
        say(entry, Severity::warning, err == EACCES ? "may not be opened" : "is no namespace");
    } else {
      say(entry, entry.wanted ? Severity::error : Severity::warning,
          std::string("cannot be looked at: ") + std::strerror(err) +
              (err == EPERM ? " (entering a namespace needs CAP_SYS_ADMIN); its VRF is left out"
                            : ""));
    }
    return;
  }
  entry.notYet = 0;
  if (named) say(entry, Severity::info, "is there");
}

void Networks::reviewSoon() {
  soon_ = firstRetry;
  soonTask_->scheduleIs(soon_);
}

void Networks::handleSoon() {
  bool more = false;
  for (auto& [vrf, entry] : entries_) {
    if (entry->notYet > 0) review(*entry);
    more = more || (entry->notYet > 0 && entry->notYet < patience);
  }
  soon_ *= 2;
  if (more) soonTask_->scheduleIs(soon_);
}

void Networks::handleName(const std::string& fileName) {
  const auto vrf = vrfOf(fileName);
  if (!vrf) return;
  if (const auto it = entries_.find(*vrf); it != entries_.end()) {
    review(*it->second);
    if (it->second->notYet > 0) reviewSoon();
    forget();
  } else {
    skipped_.erase(fileName);  // it may be a symbolic link to something else now
    look(fileName);
  }
}

void Networks::reviewAll() {
  for (auto& [vrf, entry] : entries_) review(*entry);
  scan();
  forget();
}

void Networks::handleTick() {
  for (auto& [vrf, entry] : entries_)
    if (entry->monitor && !entry->monitor->alive()) entry->failed = true;
  watch_->attach();
  reviewAll();
  tickTask_->scheduleIs(tick);
}

}  // namespace agent
