#pragma once
#include <sys/types.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/host/AgentLog.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/Fd.h"

namespace agent {

/// Who is at the other end, as the kernel says.
struct ControlPeer {
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
  /// root and the agent's own user may change what runs; others may look.
  bool mayChange = false;
};

/// A Unix stream socket on which local programs ask, a line each, and are answered, a line each, in
/// the order of their questions.
///
/// Whoever connects can be slow, silent or hostile, and the exports on the same thread must not
/// notice: nothing here waits; one request is answered per round of the loop, after all tasks that
/// are due, and the next not before as much time has passed as that one took; a connection is not
/// read while its answer is being made or fetched; lines, connections and the time that each may
/// take are bounded. Some descriptors are kept in reserve, so that whoever asks why nothing works
/// is answered when all others are taken.
class ControlSocket {
 public:
  /// The answer's line, without its newline. Called with one line, without its newline. Must not
  /// throw, and returns within a few milliseconds.
  using Handler = std::function<std::string(const ControlPeer& peer, std::string_view request)>;

  struct Limits {
    size_t requestMax = 4096;  ///< octets of a line
    size_t connectionsMax = 32;
    size_t strangersMax = 16;  ///< of those, by users who may only look
    /// For a whole request to come from the end of the last one, and for an answer to be fetched.
    std::chrono::milliseconds patience{10000};
  };

  ControlSocket(Ptr<EventLoop> loop, AgentLog& log, Handler handler, const Limits& limits);
  ControlSocket(Ptr<EventLoop> loop, AgentLog& log, Handler handler)
      : ControlSocket(std::move(loop), log, std::move(handler), Limits()) {}
  /// Closes all connections and removes the socket's file, if it still is this one's, and the
  /// directory that was made for it, if nothing else is there.
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  /// Listens at `path`, for every local user to connect. Makes the last directory of it, replaces
  /// the socket of a program that is gone, and leaves that of a living one. False: it cannot now,
  /// and the reason is in the log; `restore` tries again.
  bool listen(const std::string& path);
  /// Makes the socket's file again when somebody removed it, or when it could not be made before.
  /// What it does, and a new reason why it cannot, is in the log. Runs by itself now and then.
  void restore();
  size_t connections() const { return connections_.size(); }

 private:
  struct Connection;
  using Clock = std::chrono::steady_clock;

  std::string bindTo(const std::string& path);
  bool fileIsOurs() const;
  void handleAccept();
  void handleEvents(uint64_t id, uint32_t events);
  void handlePeerGone(Connection& c);
  void read(Connection& c);
  void takeLine(Connection& c);
  void serve();
  void scheduleServe();
  void flush(Connection& c);
  void watchWhatMatters(Connection& c);
  void close(uint64_t id);
  void fillReserve();
  void sweep();

  Ptr<EventLoop> loop_;
  AgentLog& log_;
  Handler handler_;
  const Limits limits_;
  std::string path_;
  std::string madeDirectory_;  // empty: it was there
  dev_t device_ = 0;           // of the socket's file
  ino_t inode_ = 0;
  std::string problem_;  // why it does not listen, as the log has it
  Fd socket_;
  std::unique_ptr<EventLoop::FdWatch> watch_;
  std::vector<Fd> reserve_;  // each can be closed for the sake of another
  bool resting_ = false;     // no descriptor was left: tried again at the next sweep
  std::map<uint64_t, std::unique_ptr<Connection>> connections_;
  uint64_t lastId_ = 0;
  std::deque<uint64_t> waiting_;  // with a request each, in the order these came
  Clock::time_point notBefore_;   // the next one is answered
  std::unique_ptr<TimerTask> serveTask_;
  std::unique_ptr<TimerTask> sweepTask_;
  std::unique_ptr<TimerTask> restoreTask_;
};

}  // namespace agent
