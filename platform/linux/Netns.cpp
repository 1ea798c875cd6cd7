#include "platform/linux/Netns.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/Assert.h"
#include "platform/UdpPam.h"
#include "platform/linux/Fd.h"

namespace platform {

std::optional<NetnsId> netnsIdOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return NetnsId{st.st_dev, st.st_ino};
}

NetnsScope::NetnsScope(const std::string& path) {
  if (path.empty()) return;
  const Fd target(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!target) throw ErrnoException(errno, "network namespace " + path);
  struct stat st {};
  if (::fstat(target.get(), &st) != 0) throw ErrnoException(errno, "network namespace " + path);
  id_ = {st.st_dev, st.st_ino};
  Fd home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  if (!home) throw ErrnoException(errno, "/proc/thread-self/ns/net");
  // Fails with EINVAL between the creation of the file and the mount of the namespace on it.
  if (::setns(target.get(), CLONE_NEWNET) != 0)
    throw ErrnoException(errno, "network namespace " + path);
  home_ = home.release();
}

NetnsScope::~NetnsScope() {
  if (home_ < 0) return;
  const Fd home(home_);
  TARN_ASSERT_AS(::setns(home.get(), CLONE_NEWNET) == 0,
                 "the thread comes back to its own network namespace");
}

}  // namespace platform
