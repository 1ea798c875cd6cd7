#include "agent/network/DirectoryWatch.h"

#include <sys/epoll.h>
#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

namespace agent {

DirectoryWatch::DirectoryWatch(EventLoop& loop, std::string dir, AgentLog& log, Handlers handlers)
    : dir_(std::move(dir)),
      handlers_(std::move(handlers)),
      fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  const size_t slash = dir_.find_last_of('/');
  parent_ = slash == 0 || slash == dir_.npos ? "/" : dir_.substr(0, slash);
  base_ = slash == dir_.npos ? dir_ : dir_.substr(slash + 1);
  if (!fd_) {
    log.warning(std::string("inotify: ") + std::strerror(errno) +
                "; namespaces are looked for every 2 seconds");
    return;
  }
  watch_ = loop.fdWatch(fd_.get(), EPOLLIN, [this](uint32_t) { handleReadable(); });
  attach();
}

void DirectoryWatch::attach() {
  if (!fd_ || dirWatch_ >= 0) return;
  constexpr uint32_t events = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                              IN_MOVE_SELF | IN_ONLYDIR;
  // The parent first: a directory made in between is not missed.
  if (parentWatch_ < 0)
    parentWatch_ =
        inotify_add_watch(fd_.get(), parent_.c_str(),
                          IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
  dirWatch_ = inotify_add_watch(fd_.get(), dir_.c_str(), events);
  if (dirWatch_ < 0 || parentWatch_ < 0) return;
  inotify_rm_watch(fd_.get(), parentWatch_);
  parentWatch_ = -1;
}

void DirectoryWatch::handleReadable() {
  alignas(inotify_event) std::array<char, 16384> buffer;
  std::vector<std::string> names;
  bool all = false;
  for (;;) {
    const ssize_t n = read(fd_.get(), buffer.data(), buffer.size());
    if (n <= 0) break;
    for (ssize_t at = 0; at < n;) {
      const auto& event = *reinterpret_cast<const inotify_event*>(buffer.data() + at);
      at += static_cast<ssize_t>(sizeof event + event.len);
      const bool self = (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0;
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        all = true;
      } else if (event.wd == dirWatch_ && self) {
        if ((event.mask & IN_MOVE_SELF) != 0) inotify_rm_watch(fd_.get(), dirWatch_);
        dirWatch_ = -1;
        all = true;
      } else if (event.wd == parentWatch_ && self) {
        parentWatch_ = -1;
      } else if (event.wd == dirWatch_ && event.len > 0) {
        names.emplace_back(event.name);
      } else if (event.wd == parentWatch_ && event.len > 0 && base_ == event.name) {
        all = true;
      }
    }
  }
  if (all) {
    attach();
    handlers_.all();
  } else {
    for (const std::string& name : names) handlers_.name(name);
  }
}

}  // namespace agent
