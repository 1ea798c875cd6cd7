#include "agent/ServiceManager.h"

#include <systemd/sd-daemon.h>
#include <time.h>

#include "agent/Printable.h"

namespace agent {
namespace {
std::string statusLine(const std::string& status) { return "STATUS=" + printable(status); }
}  // namespace

void ServiceManager::ready(const std::string& status) {
  sd_notify(0, ("READY=1\n" + statusLine(status)).c_str());
}
void ServiceManager::reloading() {
  // Type=notify-reload tells a reload from an older one by this time.
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto us =
      std::chrono::microseconds(std::chrono::seconds(now.tv_sec)).count() + now.tv_nsec / 1000;
  sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(us)).c_str());
}
void ServiceManager::stopping() { sd_notify(0, "STOPPING=1"); }
void ServiceManager::status(const std::string& status) { sd_notify(0, statusLine(status).c_str()); }
void ServiceManager::alive() { sd_notify(0, "WATCHDOG=1"); }

std::chrono::microseconds ServiceManager::watchdog() {
  uint64_t us = 0;
  if (sd_watchdog_enabled(0, &us) <= 0) return {};
  return std::chrono::microseconds(us);
}

}  // namespace agent
