#include "agent/control/ControlSocket.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/host/Printable.h"
#include "agent/host/Priorities.h"
#include "platform/UdpPam.h"

namespace agent {
namespace {
constexpr int backlog = 64;
constexpr int acceptsPerRound = 16;
constexpr size_t reserveMax = 4;  // descriptors: for three clients, and for what one asks for
constexpr Seconds sweepInterval{1};
constexpr Seconds restoreInterval{10};
constexpr mode_t everybody = 0666;
constexpr mode_t everybodyEnters = 0755;

std::string errorText(int err) { return std::strerror(err); }

bool addressOf(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  path.copy(address.sun_path, path.size());
  return true;
}
const sockaddr* generic(const sockaddr_un& a) { return reinterpret_cast<const sockaddr*>(&a); }

bool credentialsOf(int fd, ucred& peer) {
  socklen_t len = sizeof peer;
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) == 0;
}
}  // namespace

struct ControlSocket::Connection {
  uint64_t id = 0;
  Fd fd;
  ControlPeer peer;
  std::string in;  // read and not answered yet
  std::string out;
  size_t sent = 0;       // of `out`
  bool asked = false;    // its request waits for its turn
  bool ended = false;    // the peer sends no more
  bool closing = false;  // once `out` is sent
  bool gone = false;     // the peer: what it has asked is done, and no answer sent
  Clock::time_point deadline;
  std::unique_ptr<EventLoop::FdWatch> watch;
};

ControlSocket::ControlSocket(Ptr<EventLoop> loop, AgentLog& log, Handler handler,
                             const Limits& limits)
    : loop_(std::move(loop)), log_(log), handler_(std::move(handler)), limits_(limits) {
  serveTask_ = loop_->taskScheduler()->timerTask("control", afterAll, [this] { serve(); });
  sweepTask_ = loop_->taskScheduler()->timerTask("control-sweep", afterAll, [this] { sweep(); });
  restoreTask_ =
      loop_->taskScheduler()->timerTask("control-restore", afterAll, [this] { restore(); });
}

ControlSocket::~ControlSocket() {
  connections_.clear();
  watch_.reset();
  if (fileIsOurs()) unlink(path_.c_str());
  if (!madeDirectory_.empty()) rmdir(madeDirectory_.c_str());
}

/// Nobody else's file can have the number while the socket keeps this one's inode.
bool ControlSocket::fileIsOurs() const {
  struct stat there {};
  return socket_ && lstat(path_.c_str(), &there) == 0 && there.st_dev == device_ &&
         there.st_ino == inode_;
}

void ControlSocket::restore() {
  restoreTask_->scheduleIs(restoreInterval);
  if (fileIsOurs()) return;
  const bool had = static_cast<bool>(socket_);
  if (had) handleAccept();  // those who connected before it was removed
  watch_.reset();
  socket_.close();
  if (listen(path_))
    log_.say(Severity::notice, "control socket " + printable(path_) +
                                   (had ? " was removed: it is made again" : " could be made"));
}

bool ControlSocket::listen(const std::string& path) {
  path_ = path;
  restoreTask_->scheduleLowestIs(restoreInterval);
  const std::string problem = bindTo(path);
  if (!problem.empty()) {
    if (problem != std::exchange(problem_, problem))
      log_.warning("no control socket: " + problem +
                   "; everything else runs, and 'tarnflow' cannot ask this agent");
    if (fileIsOurs()) unlink(path_.c_str());
    socket_.close();
    return false;
  }
  problem_.clear();
  fillReserve();
  watch_ = loop_->fdWatch(socket_.get(), EPOLLIN, [this](uint32_t) { handleAccept(); });
  return true;
}

/// Empty, or why it cannot.
std::string ControlSocket::bindTo(const std::string& path) {
  const std::string where = printable(path);
  sockaddr_un address{};
  if (!addressOf(path, address)) return where + " is too long for a socket's path";
  const auto fresh = [] {
    return Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  };

  const std::string directory = path.substr(0, path.rfind('/'));
  if (mkdir(directory.c_str(), everybodyEnters) == 0) {
    madeDirectory_ = directory;
    // The umask may have taken away what others need to reach the socket.
    if (chmod(directory.c_str(), everybodyEnters) < 0)
      return "cannot open " + printable(directory) + " to everybody: " + errorText(errno);
  } else if (!directory.empty() && errno != EEXIST) {
    return "cannot make the directory " + printable(directory) + ": " + errorText(errno);
  }

  struct stat there {};
  if (lstat(path.c_str(), &there) == 0) {
    if (!S_ISSOCK(there.st_mode))
      return where + " is there and is no socket; remove it, or set agent.control to another path";
    // Only a socket that somebody listens at can be connected to.
    Fd probe = fresh();
    if (!probe) return "cannot open a socket: " + errorText(errno);
    const bool connected = connect(probe.get(), generic(address), sizeof address) == 0;
    const int err = errno;
    if (connected || err == EAGAIN) {
      ucred peer{};
      const bool known = connected && credentialsOf(probe.get(), peer);
      return where + " is that of a living program" +
             (known ? " (pid " + std::to_string(peer.pid) + ")" : "") +
             "; set agent.control to another path";
    }
    if (err != ECONNREFUSED)
      return "what stands at " + where + " does not answer: " + errorText(err);
    if (unlink(path.c_str()) < 0)
      return "cannot replace " + where + ", left by a program that is gone: " + errorText(errno);
  }

  socket_ = fresh();
  if (!socket_) return "cannot open a socket: " + errorText(errno);
  if (bind(socket_.get(), generic(address), sizeof address) < 0)
    return "cannot make " + where + ": " + errorText(errno);
  if (lstat(path.c_str(), &there) == 0) {
    device_ = there.st_dev;
    inode_ = there.st_ino;
  }
  // Whoever may look at the statistics may look here; requests that change something are checked.
  if (chmod(path.c_str(), everybody) < 0)
    return "cannot open " + where + " to everybody: " + errorText(errno);
  if (::listen(socket_.get(), backlog) < 0)
    return "cannot listen at " + where + ": " + errorText(errno);
  return {};
}

void ControlSocket::handleAccept() {
  for (int n = 0; n < acceptsPerRound; ++n) {
    Fd fd(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd) {
      const int err = errno;
      if (err == EMFILE && !reserve_.empty()) {
        reserve_.pop_back();
        continue;
      }
      if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
        // The peer stays in the queue, and the descriptor readable.
        resting_ = true;
        watch_->eventsIs(0);
        sweepTask_->scheduleLowestIs(sweepInterval);
      }
      return;
    }
    ucred peer{};
    if (!credentialsOf(fd.get(), peer)) continue;
    const bool mayChange = peer.uid == 0 || peer.uid == geteuid();
    const auto strangers =
        static_cast<size_t>(std::count_if(connections_.begin(), connections_.end(),
                                          [](const auto& c) { return !c.second->peer.mayChange; }));
    if (connections_.size() >= limits_.connectionsMax ||
        (!mayChange && strangers >= limits_.strangersMax)) {
      static constexpr std::string_view full =
          "{\"ok\":false,\"error\":\"too many connections: try again in some seconds\"}\n";
      [[maybe_unused]] const ssize_t sent =
          send(fd.get(), full.data(), full.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      continue;
    }
    auto c = std::make_unique<Connection>();
    c->id = ++lastId_;
    c->fd = std::move(fd);
    c->peer = {peer.uid, peer.gid, peer.pid, mayChange};
    c->deadline = Clock::now() + limits_.patience;
    try {
      c->watch = loop_->fdWatch(c->fd.get(), EPOLLIN,
                                [this, id = c->id](uint32_t events) { handleEvents(id, events); });
    } catch (const ErrnoException&) {
      continue;
    }
    connections_.emplace(c->id, std::move(c));
    sweepTask_->scheduleLowestIs(sweepInterval);
  }
}

void ControlSocket::handleEvents(uint64_t id, uint32_t events) {
  Connection& c = *connections_.at(id);
  if (events & EPOLLOUT) {
    flush(c);
  } else if (events & EPOLLIN) {
    read(c);
  } else {
    handlePeerGone(c);
  }
}

/// Nobody is left to answer, but what was asked before is done all the same, in its turn.
void ControlSocket::handlePeerGone(Connection& c) {
  c.gone = true;
  c.watch.reset();  // which would report it over and over
  c.out = {};
  c.sent = 0;
  if (c.closing) {
    close(c.id);
  } else if (!c.asked) {
    takeLine(c);
  }
}

/// One piece: whoever sends much is not read faster than it is answered.
void ControlSocket::read(Connection& c) {
  std::array<char, 4096> piece;
  const ssize_t n = recv(c.fd.get(), piece.data(), piece.size(), 0);
  if (n < 0) {
    if (c.gone || (errno != EAGAIN && errno != EINTR)) close(c.id);
    return;
  }
  if (n == 0) {
    c.ended = true;
    if (!c.in.empty() && c.in.back() != '\n') c.in += '\n';  // its last line
  }
  c.in.append(piece.data(), static_cast<size_t>(n));
  takeLine(c);
}

/// Queues the connection when a whole request is there; ends it when one cannot come.
void ControlSocket::takeLine(Connection& c) {
  const size_t end = c.in.find('\n');
  if (std::min(end, c.in.size()) > limits_.requestMax) {
    c.in.clear();
    c.out = "{\"ok\":false,\"error\":\"the request has more than " +
            std::to_string(limits_.requestMax) + " octets\"}\n";
    c.sent = 0;
    c.closing = true;
    flush(c);
    return;
  }
  if (end != std::string::npos) {
    c.asked = true;
    waiting_.push_back(c.id);
    scheduleServe();
  } else if (c.ended) {
    close(c.id);
    return;
  } else if (c.gone) {
    read(c);
    return;
  }
  watchWhatMatters(c);
}

void ControlSocket::serve() {
  while (!waiting_.empty() && !connections_.contains(waiting_.front())) waiting_.pop_front();
  if (waiting_.empty()) return;
  Connection& c = *connections_.at(waiting_.front());
  waiting_.pop_front();
  const auto start = Clock::now();
  const size_t end = c.in.find('\n');
  std::string line = c.in.substr(0, end);
  c.in.erase(0, end + 1);
  if (line.ends_with('\r')) line.pop_back();
  c.asked = false;
  if (!reserve_.empty()) reserve_.pop_back();  // a reload opens files
  c.out = handler_(c.peer, line) + '\n';
  fillReserve();
  c.sent = 0;
  c.deadline = Clock::now() + limits_.patience;
  flush(c);
  const auto now = Clock::now();
  notBefore_ = now + (now - start);  // as much time for everything else as for this
  if (!waiting_.empty()) scheduleServe();
}

void ControlSocket::scheduleServe() { serveTask_->scheduleIs(notBefore_ - Clock::now()); }

void ControlSocket::flush(Connection& c) {
  while (!c.gone && c.sent < c.out.size()) {
    const ssize_t n = send(c.fd.get(), c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) break;
    if (n < 0) {
      handlePeerGone(c);
      return;
    }
    c.sent += static_cast<size_t>(n);
  }
  if (!c.gone && c.sent < c.out.size()) {
    watchWhatMatters(c);
    return;
  }
  if (c.closing) {
    close(c.id);
    return;
  }
  c.out = {};
  c.sent = 0;
  c.deadline = Clock::now() + limits_.patience;
  takeLine(c);
}

void ControlSocket::watchWhatMatters(Connection& c) {
  if (c.gone) return;
  constexpr uint32_t nothing = 0;
  constexpr uint32_t in = EPOLLIN;
  constexpr uint32_t out = EPOLLOUT;
  c.watch->eventsIs(!c.out.empty() ? out : c.asked || c.ended ? nothing : in);
}

void ControlSocket::close(uint64_t id) {
  connections_.erase(id);
  fillReserve();
  // Its place in `waiting_` is found out when its turn comes.
}

void ControlSocket::fillReserve() {
  while (reserve_.size() < reserveMax) {
    Fd fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!fd) return;
    reserve_.push_back(std::move(fd));
  }
}

void ControlSocket::sweep() {
  const auto now = Clock::now();
  std::erase_if(connections_, [&](const auto& c) {
    // A request that waits for its turn is not late: the agent is.
    return !c.second->asked && c.second->deadline <= now;
  });
  if (resting_) {
    resting_ = false;
    if (watch_) watch_->eventsIs(EPOLLIN);
  }
  fillReserve();
  if (!connections_.empty()) sweepTask_->scheduleIs(sweepInterval);
}

}  // namespace agent
