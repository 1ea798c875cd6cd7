#pragma once
#include <chrono>
#include <functional>
#include <string>

namespace agent {

/// What the service manager is told, where there is one (the protocol of sd_notify(3), which itself
/// would wait for a manager that does not read); nothing otherwise. What its socket does not take
/// stays queued.
struct ServiceManager {
  static void ready(const std::string& status);
  static void reloading();
  static void stopping();
  static void status(const std::string& status);
  static void alive();
  /// How long it waits for `alive`; zero: it does not.
  static std::chrono::microseconds watchdog();

  /// A directory that only this service may write (RuntimeDirectory=); `other` where there is none.
  static std::string runtimeDirectory(const std::string& other);

  /// Sends what is queued, as far as the socket takes it.
  static void flush();
  /// `handler` is called whenever something stays queued, to call `flush` some time later.
  static void queuedHandlerIs(std::function<void()> handler);
};

}  // namespace agent
