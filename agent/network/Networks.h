#pragma once
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "agent/host/AgentLog.h"
#include "agent/network/DirectoryWatch.h"
#include "agent/network/Network.h"
#include "agent/network/Rtnetlink.h"
#include "platform/linux/EventLoop.h"

namespace agent {

/// The networks of this machine: the one of the namespace that the agent started in, VRF "default",
/// those of all namespaces `ns-<vrf>`, and those that `network` was called for and that may appear.
/// Follows namespaces that appear, disappear, and are replaced by others of the same name; of one
/// that disappeared it keeps nothing, so that the kernel can take it down.
///
/// inotify reports changes within milliseconds. A review of all namespaces every two seconds finds
/// what inotify cannot report (a mount is no event of the directory) or had to drop.
class Networks {
 public:
  /// `netnsDir` holds the namespaces' mounts; it need not exist yet.
  Networks(Ptr<EventLoop> loop, std::string netnsDir, AgentLog& log);
  ~Networks();
  Networks(const Networks&) = delete;
  Networks& operator=(const Networks&) = delete;

  /// The VRF's network, kept from now on whether it is there or not.
  Ptr<VrfNetwork> network(const VrfName& vrf);
  /// Forgets networks that are not there, except the default one and those of `vrfs`.
  void keepOnly(const std::set<VrfName>& vrfs);
  const Ptr<NetworkList>& list() const { return list_; }
  /// Every namespace that is there has been surveyed.
  bool settled() const;

 private:
  struct Entry;

  Entry& entry(const VrfName& vrf);
  std::optional<VrfName> vrfOf(const std::string& fileName);
  void look(const std::string& fileName);
  void scan();
  void forget();
  void review(Entry& entry);
  void open(Entry& entry);
  void close(Entry& entry);
  void say(Entry& entry, Severity severity, const std::string& what);
  void reviewSoon();
  void handleSoon();
  void handleTick();
  void handleName(const std::string& fileName);
  void reviewAll();

  Ptr<EventLoop> loop_;
  std::string dir_;
  AgentLog& log_;
  const Ptr<NetworkList> list_ = networkListFactory();
  std::set<std::string> skipped_;  // files that are not looked at, as the log said
  std::map<VrfName, std::unique_ptr<Entry>> entries_;
  std::unique_ptr<DirectoryWatch> watch_;
  std::unique_ptr<TimerTask> soonTask_;
  std::unique_ptr<TimerTask> tickTask_;
  Seconds soon_{0};
};

}  // namespace agent
