#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace cli {

/// Prometheus' text format 0.0.4, and OpenMetrics 1.0, which names the families of counters without
/// their "_total" and ends in "# EOF".
enum class MetricsFormat { prometheus, openMetrics };

/// "127.0.0.1:9739", "[::1]:9739"; what is wrong with it, or empty.
std::string listenError(const std::string& text);

/// The HTTP server, on the caller's thread. A client costs a slot and what the kernel buffers for
/// it, never a wait of the others: nothing here blocks, and when all slots are taken, whoever comes
/// gets that of the client that has been silent for the longest time.
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
