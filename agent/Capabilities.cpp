#include "agent/Capabilities.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace agent {
namespace {

constexpr int needed[] = {CAP_NET_RAW, CAP_SYS_ADMIN, CAP_NET_ADMIN, CAP_NET_BIND_SERVICE,
                          CAP_DAC_READ_SEARCH};

}  // namespace

void keepNeededCapabilities() {
  // The agent starts no program: what it gave up must not come back with a file that is set-user-id
  // or, for root, with any.
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, sets) != 0) return;
  __user_cap_data_struct kept[_LINUX_CAPABILITY_U32S_3] = {};
  for (const int cap : needed) kept[CAP_TO_INDEX(cap)].permitted |= CAP_TO_MASK(cap);
  for (unsigned i = 0; i < _LINUX_CAPABILITY_U32S_3; ++i) {
    kept[i].permitted &= sets[i].permitted;
    kept[i].effective = kept[i].permitted;
  }
  // Less is always allowed. Ambient capabilities go with the permitted and inheritable ones.
  syscall(SYS_capset, &header, kept);
}

}  // namespace agent
