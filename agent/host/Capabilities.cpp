#include "agent/host/Capabilities.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/UdpPam.h"

namespace agent {
namespace {

constexpr int needed[] = {CAP_NET_RAW,          CAP_SYS_ADMIN,       CAP_NET_ADMIN,
                          CAP_NET_BIND_SERVICE, CAP_DAC_READ_SEARCH, CAP_BPF};

using Sets = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

/// Of the calling thread. 0, or errno.
int capset(const Sets& sets) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return syscall(SYS_capset, &header, sets.data()) == 0 ? 0 : errno;
}
}  // namespace

void keepNeededCapabilities() {
  // The agent starts no program: what it gave up must not come back with a file that is set-user-id
  // or, for root, with any.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
    throw platform::ErrnoException(errno, "PR_SET_NO_NEW_PRIVS");
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  Sets has{};
  if (syscall(SYS_capget, &header, has.data()) != 0)
    throw platform::ErrnoException(errno, "capget");
  Sets kept{};
  for (const int cap : needed) kept[CAP_TO_INDEX(cap)].permitted |= CAP_TO_MASK(cap);
  for (size_t i = 0; i < kept.size(); ++i) {
    kept[i].permitted &= has[i].permitted;
    kept[i].effective = kept[i].permitted;
  }
  // Less is always allowed, unless a filter of system calls stands in the way; each thread needs
  // the same. Ambient capabilities go with the permitted and inheritable ones.
  if (const int err = capset(kept); err != 0)
    throw platform::ErrnoException(
        err, "capabilities cannot be given up, the system call capset must be allowed: capset");
}

int capabilitiesDel() { return capset({}); }

}  // namespace agent
