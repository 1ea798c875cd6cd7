#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace cli {

/// Prometheus' text format 0.0.4, and OpenMetrics 1.0, which names the families of counters without
/// their "_total" and ends in "# EOF".
enum class MetricsFormat { prometheus, openMetrics };

/// What is wrong with an address and port such as "127.0.0.1:9739" or "[::1]:9739"; empty: nothing.
std::string listenError(const std::string& text);

/// The HTTP server of /metrics, on the caller's thread. No client keeps the others waiting: nothing
/// here blocks, and when all 64 connections are taken, a new client gets the one of the client that
/// has sent no request for the longest time.
class MetricsServer {
 public:
  /// `listen` as `listenError` accepts it; `text` makes what is served, and may throw
  /// ErrnoException. Throws ErrnoException.
  MetricsServer(const std::string& listen, std::function<std::string(MetricsFormat)> text);
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  uint16_t port() const;
  /// Serves until `stopFd` is readable.
  void run(int stopFd);

 private:
  class Server;
  std::unique_ptr<Server> server_;
};

}  // namespace cli
