#include "agent/host/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <deque>

#include "agent/host/Printable.h"
#include "platform/linux/Fd.h"

namespace agent {
namespace {
constexpr size_t queueMax = 64;  // a manager that reads nothing for so long has given the agent up
std::deque<std::string> queue;
std::function<void()> queuedHandler;

/// False: the socket is full, or cannot be had.
bool send(const std::string& message) {
  const char* path = std::getenv("NOTIFY_SOCKET");
  sockaddr_un to{};
  const size_t len = path ? std::string_view(path).size() : 0;
  if (len < 2 || len >= sizeof to.sun_path) return true;
  to.sun_family = AF_UNIX;
  std::copy_n(path, len, to.sun_path);
  if (*path == '@') to.sun_path[0] = '\0';  // Linux's abstract names
  // Kept open: an agent without a free descriptor must still be able to say that it is alive.
  static platform::Fd fd;
  if (!fd) fd = platform::Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return false;
  const auto toLen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len);
  return sendto(fd.get(), message.data(), message.size(), MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&to), toLen) >= 0 ||
         (errno != EAGAIN && errno != ENOBUFS);
}

void tell(std::string message) {
  // Of a status only the last counts, and one sign of life is as good as several.
  const auto replaces = [&](std::string_view kind) {
    return !queue.empty() && message.starts_with(kind) && queue.back().starts_with(kind);
  };
  if (replaces("STATUS=") || replaces("WATCHDOG=")) queue.pop_back();
  if (queue.size() == queueMax) queue.pop_front();
  queue.push_back(std::move(message));
  ServiceManager::flush();
}

std::string statusLine(const std::string& status) { return "STATUS=" + printable(status); }
}  // namespace

void ServiceManager::flush() {
  while (!queue.empty() && send(queue.front())) queue.pop_front();
  if (!queue.empty() && queuedHandler) queuedHandler();
}
void ServiceManager::queuedHandlerIs(std::function<void()> handler) {
  queuedHandler = std::move(handler);
}

void ServiceManager::ready(const std::string& status) { tell("READY=1\n" + statusLine(status)); }
void ServiceManager::reloading() {
  // Type=notify-reload tells a reload from an older one by this time.
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto us =
      std::chrono::microseconds(std::chrono::seconds(now.tv_sec)).count() + now.tv_nsec / 1000;
  tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(us));
}
void ServiceManager::stopping() { tell("STOPPING=1"); }
void ServiceManager::status(const std::string& status) { tell(statusLine(status)); }
void ServiceManager::alive() { tell("WATCHDOG=1"); }

std::string ServiceManager::runtimeDirectory(const std::string& other) {
  const char* all = std::getenv("RUNTIME_DIRECTORY");  // divided by ':'
  const std::string_view first = all ? std::string_view(all) : std::string_view();
  return first.starts_with('/') ? std::string(first.substr(0, first.find(':'))) : other;
}

std::chrono::microseconds ServiceManager::watchdog() {
  uint64_t us = 0;
  if (sd_watchdog_enabled(0, &us) <= 0) return {};
  return std::chrono::microseconds(us);
}

}  // namespace agent
