#pragma once
#include <chrono>
#include <string>

namespace agent {

/// What the service manager is told, where there is one (sd_notify(3)); nothing otherwise.
struct ServiceManager {
  static void ready(const std::string& status);
  static void reloading();
  static void stopping();
  static void status(const std::string& status);
  static void alive();
  /// How long it waits for `alive`; zero: it does not.
  static std::chrono::microseconds watchdog();
};

}  // namespace agent
