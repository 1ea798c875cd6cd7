#include "cli/control/ControlClient.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace cli {
namespace {
// A reload of a large configuration takes seconds; everything else a fraction of one.
constexpr std::chrono::milliseconds reloadPatience{60000};
constexpr std::chrono::milliseconds connectAgain{50};
constexpr size_t answerMax = 16 << 20;  // octets; the agent's parts are far smaller

std::string errorText(int err) { return std::strerror(err); }

std::string connectProblem(const std::string& path, int err) {
  switch (err) {
    case ENOENT:
      return fmt::format(
          "no agent answers at {}: there is no such socket. Is tarnflowd running? The path is "
          "agent.control in its configuration; give another with --socket",
          path);
    case ECONNREFUSED:
      return fmt::format(
          "no agent answers at {}: the one that made this socket is gone. Start tarnflowd, or give "
          "another path with --socket",
          path);
    case EACCES:
    case EPERM:
      return fmt::format("{} cannot be opened by this user: {}", path, errorText(err));
    case EAGAIN:
      return fmt::format("the agent at {} is too busy to answer: try again", path);
    default:
      return fmt::format("no agent answers at {}: {}", path, errorText(err));
  }
}
}  // namespace

ControlClient::ControlClient(const std::string& path, std::chrono::milliseconds most,
                             std::vector<int> inputs)
    : path_(path),
      most_(most),
      inputs_(std::move(inputs)),
      fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    throw NoAgent(
        fmt::format("\"{}\" is not the path of a socket: it has {} octets, allowed are 1 to {}",
                    path, path.size(), sizeof address.sun_path - 1));
  path.copy(address.sun_path, path.size());
  if (!fd_) throw NoAgent("cannot open a socket: " + errorText(errno));
  const auto end = std::chrono::steady_clock::now() + most;
  while (connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    // EAGAIN: the agent's queue of new connections is full.
    if (errno != EAGAIN || std::chrono::steady_clock::now() >= end)
      throw NoAgent(connectProblem(path, errno));
    pause(connectAgain);
  }
  fcntl(fd_.get(), F_SETFL, 0);  // from now on it is read when there is something to read
}

ControlClient::Json ControlClient::ask(const Json& request) {
  const std::string line = request.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
  for (size_t sent = 0; sent < line.size();) {
    const ssize_t n = send(fd_.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;  // the agent hung up; its answer may still be there to read
    sent += static_cast<size_t>(n);
  }
  const auto most = request.value("request", "") == "reload" ? reloadPatience : most_;
  size_t end = 0;
  while ((end = in_.find('\n', end)) == std::string::npos) {
    end = in_.size();
    const int ready = wait(fd_.get(), most);
    if (ready == 0)
      throw NoAgent(fmt::format(
          "the agent at {} does not answer within {} s: it is busy, or has no descriptor left",
          path_, most.count() / 1000));
    std::array<char, 65536> piece;
    const ssize_t n = ready < 0 ? -1 : recv(fd_.get(), piece.data(), piece.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (in_.size() > answerMax)
      throw NoAgent(
          fmt::format("what answers at {} is not tarnflowd: its line has more than {} octets",
                      path_, answerMax));
    if (n <= 0)
      throw NoAgent(fmt::format("the agent at {} hung up{}", path_,
                                n < 0 ? ": " + errorText(errno) : " before it answered"));
    in_.append(piece.data(), static_cast<size_t>(n));
  }
  Json answer = Json::parse(in_.begin(), in_.begin() + static_cast<ptrdiff_t>(end), nullptr, false);
  in_.erase(0, end + 1);
  if (!answer.is_object() || !answer.contains("ok") || !answer["ok"].is_boolean())
    throw NoAgent(fmt::format(
        "what answers at {} is not tarnflowd: its line is no JSON object with \"ok\"", path_));
  if (!answer["ok"].get<bool>())
    throw Refused(answer.value("error", std::string("the agent refuses and does not say why")));
  return answer;
}

/// poll(2) on `fd` (-1: only waits). Throws Interrupted when an input becomes readable.
int ControlClient::wait(int fd, std::chrono::milliseconds most) const {
  std::vector<pollfd> polled = {{fd, POLLIN, 0}};
  for (const int input : inputs_) polled.push_back({input, POLLIN, 0});
  const int ready = poll(polled.data(), polled.size(), static_cast<int>(most.count()));
  if (ready > (polled[0].revents != 0 ? 1 : 0)) throw Interrupted();
  return ready;
}

void ControlClient::askAll(Json request, const std::function<Json(const Json&)>& part) {
  for (;;) {
    const Json answer = ask(request);
    Json next = part(answer);
    if (next.is_null() && answer.contains("next")) next = answer["next"];
    if (next.is_null() || next == false) return;
    request["after"] = std::move(next);
  }
}

}  // namespace cli
