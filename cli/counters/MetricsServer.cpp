#include "cli/counters/MetricsServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <map>
#include <tuple>
#include <utility>

#include "platform/UdpPam.h"

namespace cli {
namespace {
using Clock = std::chrono::steady_clock;

/// An address and a port to listen on.
struct Listen {
  sockaddr_storage address{};
  bool six() const { return address.ss_family == AF_INET6; }
};

/// Empty, or what is wrong with the text.
std::string parseListen(const std::string& text, Listen& out) {
  const auto colon = text.rfind(':');
  std::string host = text.substr(0, colon);
  unsigned port = 65536;
  if (colon != std::string::npos) {
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data() + colon + 1, end, port);
    if (error != std::errc() || at != end) port = 65536;
  }
  auto* four = reinterpret_cast<sockaddr_in*>(&out.address);
  auto* six = reinterpret_cast<sockaddr_in6*>(&out.address);
  const bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (port < 65536 && inet_pton(AF_INET, host.c_str(), &four->sin_addr) == 1) {
    four->sin_family = AF_INET;
    four->sin_port = htons(static_cast<uint16_t>(port));
    return {};
  }
  if (port < 65536 && brackets &&
      inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &six->sin6_addr) == 1) {
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(static_cast<uint16_t>(port));
    return {};
  }
  return fmt::format("\"{}\" is no address and port, such as 127.0.0.1:9739 or [::1]:9739", text);
}

}  // namespace

std::string listenError(const std::string& text) {
  Listen unused;
  return parseListen(text, unused);
}

class MetricsServer::Server {
 public:
  static constexpr unsigned connectionsMax = 64;
  static constexpr unsigned idleSeconds = 10;
  /// A connection lives no longer, whatever it sends or reads: a client that sends an octet now and
  /// then would keep its slot for days.
  static constexpr auto lifeMax = std::chrono::seconds(60);
  /// Scrapes that come together get the same text: this bounds the work that clients can cause.
  static constexpr auto freshFor = std::chrono::milliseconds(100);

  Server(const Listen& listen, std::function<std::string(MetricsFormat)> text)
      : text_(std::move(text)) {
    const unsigned flags = listen.six() ? unsigned{MHD_USE_IPv6} : 0U;
    errno = 0;
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &Server::handle, this,
                               MHD_OPTION_SOCK_ADDR, &listen.address, MHD_OPTION_CONNECTION_LIMIT,
                               connectionsMax, MHD_OPTION_CONNECTION_TIMEOUT, idleSeconds,
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<size_t>(16384),
                               MHD_OPTION_LISTENING_ADDRESS_REUSE, 1U, MHD_OPTION_NOTIFY_CONNECTION,
                               &Server::connection, this, MHD_OPTION_END);
    if (!daemon_) throw platform::ErrnoException(errno, "cannot listen");
  }
  ~Server() {
    MHD_stop_daemon(daemon_);
    for (auto& [format, kept] : kept_)
      if (kept.response) MHD_destroy_response(kept.response);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  uint16_t port() const { return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port; }
  /// Serves until `stopFd` is readable.
  ///
  /// It uses select, which suffices for 64 connections. libmicrohttpd's loop with epoll is
  /// edge-triggered: a client's end that comes together with its last octets goes unnoticed there.
  void run(int stopFd) {
    const int listener = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_LISTEN_FD)->listen_fd;
    for (;;) {
      fd_set read, write, except;
      FD_ZERO(&read);
      FD_ZERO(&write);
      FD_ZERO(&except);
      int last = stopFd;
      FD_SET(stopFd, &read);
      MHD_get_fdset(daemon_, &read, &write, &except, &last);
      FD_SET(listener, &read);
      MHD_UNSIGNED_LONG_LONG ms = 1000;  // connections that are too old are ended once a second
      if (MHD_get_timeout(daemon_, &ms) != MHD_YES || ms > 1000) ms = 1000;
      timeval wait{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
      if (select(last + 1, &read, &write, &except, clients_.empty() ? nullptr : &wait) < 0)
        continue;
      if (FD_ISSET(stopFd, &read)) return;
      if (clients_.size() >= connectionsMax && FD_ISSET(listener, &read)) {
        FD_CLR(listener, &read);  // the client waits in the kernel's queue until a slot is free
        endTheMostSilent();
      }
      MHD_run_from_select(daemon_, &read, &write, &except);
      const auto now = Clock::now();
      for (auto& [fd, client] : clients_)
        if (now - client.begun > lifeMax) client.end(fd);
    }
  }

 private:
  /// The text that a format's last scrape got.
  struct Kept {
    MHD_Response* response = nullptr;
    Clock::time_point made;
  };

  struct Client {
    Clock::time_point begun = Clock::now();
    Clock::time_point asked = begun;  // when it last sent a request; before the first, `begun`
    bool ended = false;

    void end(int fd) {
      if (!std::exchange(ended, true)) shutdown(fd, SHUT_RDWR);
    }
  };

  static int descriptor(MHD_Connection* c) {
    return MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  }
  static void connection(void* self, MHD_Connection* c, void**,
                         MHD_ConnectionNotificationCode what) {
    auto& clients = static_cast<Server*>(self)->clients_;
    if (what == MHD_CONNECTION_NOTIFY_STARTED)
      clients[descriptor(c)] = {};
    else
      clients.erase(descriptor(c));
  }

  void endTheMostSilent() {
    const auto it =
        std::min_element(clients_.begin(), clients_.end(), [](const auto& a, const auto& b) {
          return std::tuple(a.second.ended, a.second.asked) <
                 std::tuple(b.second.ended, b.second.asked);
        });
    it->second.end(it->first);
  }

  static MHD_Result text(MHD_Connection* c, unsigned status, std::string_view body) {
    MHD_Response* response = MHD_create_response_from_buffer(
        body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, "Content-Type", "text/plain; charset=utf-8");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
      MHD_add_response_header(response, "Allow", "GET, HEAD");
    const MHD_Result result = MHD_queue_response(c, status, response);
    MHD_destroy_response(response);
    return result;
  }

  static MHD_Result handle(void* self, MHD_Connection* c, const char* url, const char* method,
                           const char*, const char*, size_t*, void** seen) {
    // libmicrohttpd calls first for the headers alone; an answer then would end the connection.
    static int once;
    if (!*seen) {
      *seen = &once;
      return MHD_YES;
    }
    const std::string_view verb = method;
    if (verb != "GET" && verb != "HEAD")
      return text(c, MHD_HTTP_METHOD_NOT_ALLOWED, "GET or HEAD only\n");
    if (std::string_view(url) == "/") return text(c, MHD_HTTP_OK, "tarnflow: see /metrics\n");
    if (std::string_view(url) != "/metrics")
      return text(c, MHD_HTTP_NOT_FOUND, "there is /metrics only\n");
    return static_cast<Server*>(self)->serve(c);
  }

  MHD_Result serve(MHD_Connection* c) {
    clients_[descriptor(c)].asked = Clock::now();
    const char* accept = MHD_lookup_connection_value(c, MHD_HEADER_KIND, "Accept");
    const auto format =
        accept && std::string_view(accept).find("application/openmetrics-text") != std::string::npos
            ? MetricsFormat::openMetrics
            : MetricsFormat::prometheus;
    Kept& kept = kept_[format];
    try {
      if (!kept.response || Clock::now() - kept.made > freshFor) {
        const std::string body = text_(format);
        if (kept.response)
          MHD_destroy_response(kept.response);  // connections that still send it hold it
        kept.response = MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                                        MHD_RESPMEM_MUST_COPY);
        kept.made = Clock::now();
        MHD_add_response_header(kept.response, "Content-Type",
                                format == MetricsFormat::openMetrics
                                    ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                    : "text/plain; version=0.0.4; charset=utf-8");
      }
    } catch (const platform::ErrnoException& e) {
      return text(c, MHD_HTTP_INTERNAL_SERVER_ERROR, fmt::format("{}\n", e.what()));
    }
    return MHD_queue_response(c, MHD_HTTP_OK, kept.response);
  }

  const std::function<std::string(MetricsFormat)> text_;
  MHD_Daemon* daemon_ = nullptr;
  std::map<MetricsFormat, Kept> kept_;
  std::map<int, Client> clients_;  // by the connection's descriptor
};

MetricsServer::MetricsServer(const std::string& listen,
                             std::function<std::string(MetricsFormat)> text) {
  Listen address;
  parseListen(listen, address);
  server_ = std::make_unique<Server>(address, std::move(text));
}
MetricsServer::~MetricsServer() = default;
uint16_t MetricsServer::port() const { return server_->port(); }
void MetricsServer::run(int stopFd) { server_->run(stopFd); }

}  // namespace cli
