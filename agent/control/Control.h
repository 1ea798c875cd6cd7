#pragma once
#include <string>
#include <utility>

#include "agent/control/ControlDispatcher.h"
#include "agent/control/ControlSocket.h"
#include "agent/exports/CollectorStates.h"

namespace agent {

/// The control socket, the requests that come over it, and the states of collectors that they show.
class Control {
 public:
  /// Listens at `path`. `endpoints`: the table that CollectorStates writes.
  Control(ControlHost host, const std::string& path, const Ptr<EventLoop>& loop, AgentLog& log,
          const Clock& clock, Ptr<SharedTable> endpoints)
      : states_(*host.exports, loop->taskScheduler(), clock, log, std::move(endpoints)),
        dispatcher_(ControlAnswers(std::move(host), &states_, clock.now(), log)),
        socket_(loop, log, [this](const ControlPeer& peer, std::string_view line) {
          return dispatcher_.answer(peer, line);
        }) {
    socket_.listen(path);
  }

  /// The settings have changed.
  void settingsAre() { states_.settingsAre(); }
  /// Makes the socket's file again when somebody removed it.
  void restore() { socket_.restore(); }

 private:
  CollectorStates states_;
  ControlDispatcher dispatcher_;
  ControlSocket socket_;
};

}  // namespace agent
