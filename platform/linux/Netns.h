#pragma once
#include <sys/types.h>

#include <optional>
#include <string>

namespace platform {

/// What a network namespace is, whatever its name: the device and inode of its file in nsfs. The
/// kernel gives them to no other namespace while anything, a socket for instance, keeps this one.
struct NetnsId {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const NetnsId&) const = default;
};
/// Of the file at `path`; nothing, with errno, when there is none. A file that is no namespace has
/// an id too, which no namespace has.
std::optional<NetnsId> netnsIdOf(const std::string& path);

/// Runs the calling thread inside the network namespace mounted at `path` while it lives; an empty
/// path stays where the thread is. Sockets made meanwhile belong to that namespace for good.
/// Throws ErrnoException (ENOENT: no such namespace; EINVAL: not one (yet); EPERM: needs
/// CAP_SYS_ADMIN). Not being able to come back is fatal: the thread would be in the wrong network.
class NetnsScope {
 public:
  explicit NetnsScope(const std::string& path);
  ~NetnsScope();
  /// Of the namespace that the thread is in meanwhile, even if another one is mounted at the path
  /// by now. For an empty path all zero.
  const NetnsId& id() const { return id_; }
  NetnsScope(const NetnsScope&) = delete;
  NetnsScope& operator=(const NetnsScope&) = delete;

 private:
  NetnsId id_;
  int home_ = -1;  // the namespace to come back to; -1: never left
};

}  // namespace platform
