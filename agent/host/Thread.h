#pragma once
#include <functional>
#include <thread>

namespace agent {

/// Starts a thread that no signal reaches and that has no capability: threads handle what strangers
/// sent, packets for instance, with sockets that the agent's thread opened. Throws
/// std::system_error when there can be no such thread; `body`, which must not throw, has not begun
/// then.
std::thread startThread(std::function<void()> body);

}  // namespace agent
