#pragma once
#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "platform/Ip.h"
#include "platform/linux/Fd.h"

/// Networks of a test's own: nothing it sends leaves the namespaces that it made.
namespace support {

/// Moves the process into namespaces of these kinds (of unshare(2)), which it may change: as
/// another user than root into one of its own user namespace. False: not permitted.
bool unshareAsRoot(int namespaces);

/// Moves the process into a fresh network namespace, once; as another user into one of its own
/// user namespace. There, lo is up and has 10.99.0.1, 10.99.0.2, 2001:db8::1 and 2001:db8::2.
/// False: not permitted here; skip the test.
bool privateNetwork();

/// Runs a shell command; false when it fails.
bool sh(const std::string& command);

/// A network namespace held by a child process, its lo up.
class PeerNamespace {
 public:
  PeerNamespace();
  ~PeerNamespace();
  PeerNamespace(const PeerNamespace&) = delete;
  PeerNamespace& operator=(const PeerNamespace&) = delete;
  pid_t pid() const { return pid_; }
  std::string path() const { return "/proc/" + std::to_string(pid_) + "/ns/net"; }
  /// Runs a shell command inside.
  bool sh(const std::string& command) const;

 private:
  FILE* holder_;
  pid_t pid_ = -1;
};

/// A directory of its own under /tmp, removed with what is in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// A UDP socket that hears everything sent to one address.
class Receiver {
 public:
  struct Datagram {
    std::vector<uint8_t> octets;
    platform::IpGenAddr src;
    uint16_t srcPort = 0;
    int tos = -1;
  };
  /// In the namespace of this path; empty: the process's own. `port` 0: the kernel chooses.
  explicit Receiver(const platform::IpGenAddr& addr, const std::string& netns = {},
                    uint16_t port = 0);
  uint16_t port() const { return port_; }
  /// The next datagram; nothing when none comes within the time.
  std::optional<Datagram> next(int timeoutMs = 2000);

 private:
  platform::Fd fd_;
  uint16_t port_ = 0;
};

/// Open descriptors of this process.
size_t openFds();

}  // namespace support
