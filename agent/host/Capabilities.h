#pragma once

namespace agent {

/// Gives up, for good and for every thread that is started later, all capabilities that the agent
/// has no use for. What it can use stays where the process has it; without any it runs as well, and
/// says at each thing what it leaves out. To be called before the first thread. Throws
/// ErrnoException when the kernel, or a filter of system calls, does not let it.
///
///   CAP_NET_RAW           packet sockets, for trackers with interfaces
///   CAP_SYS_ADMIN         entering the namespaces of VRFs
///   CAP_NET_ADMIN         receive buffers beyond net.core.rmem_max, for devices that send bursts
///   CAP_NET_BIND_SERVICE  a local collector on a port below 1024
///   CAP_BPF               telling what this machine sends from what it forwards, and how many
///                         segments a packet has, where CAP_SYS_ADMIN is not there
///   CAP_DAC_READ_SEARCH   reloading a file that only its owner may read, where root started it
void keepNeededCapabilities();

/// Gives up all capabilities of the calling thread, for good. 0, or errno.
int capabilitiesDel();

}  // namespace agent
