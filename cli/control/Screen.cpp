#include "cli/control/Screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "cli/text/Output.h"
#include "cli/text/Style.h"
#include "platform/linux/SignalDescriptor.h"

namespace cli {
namespace {
// Control sequences (ECMA-48, and private modes that terminals share).
constexpr const char* enterText =
    "\x1b[?1049h\x1b[?25l\x1b[?7l";  // other screen; cursor and wrapping off
constexpr const char* leaveText = "\x1b[?7h\x1b[?25h\x1b[?1049l";

/// The first `columns` code points.
std::string cut(const std::string& line, size_t columns) {
  size_t at = 0;
  for (; at < line.size(); ++at)
    if ((line[at] & 0xc0) != 0x80 && columns-- == 0) break;
  return line.substr(0, at);
}
}  // namespace

Screen::Screen()
    : signals_(platform::signalDescriptor(
          {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGWINCH, SIGTSTP})),
      keys_(isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &before_) == 0) {
  enter();
}
Screen::~Screen() { leave(); }

void Screen::enter() {
  if (keys_) {
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSADRAIN, &raw);
  }
  Output::write(enterText);
  Output::flush();
}
void Screen::leave() {
  Output::write(leaveText);
  Output::flush();
  if (keys_) tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
}

Screen::Size Screen::size() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) < 0 || size.ws_row == 0 || size.ws_col == 0)
    return {};
  return {size.ws_row, size.ws_col};
}

bool Screen::draw(const std::string& text, size_t head) {
  const Size size = Screen::size();
  const Style style = Style::ofOutput();
  std::string out = "\x1b[H";
  size_t at = 0;
  for (size_t row = 0; row < size.rows && at < text.size(); ++row) {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string line = cut(text.substr(at, end - at), size.columns);
    out += (row > 0 ? "\r\n" : "") + (row == head ? style.strong(line) : line) + "\x1b[K";
    at = end + 1;
  }
  return Output::write(out + "\x1b[J") && Output::flush();
}

Screen::Event Screen::signalled() {
  signalfd_siginfo info{};
  if (read(signals_.get(), &info, sizeof info) != sizeof info) return {};
  if (info.ssi_signo == SIGWINCH) return {Event::resized};
  if (info.ssi_signo != SIGTSTP) return {Event::end};
  leave();
  raise(SIGSTOP);  // until somebody continues it
  enter();
  return {Event::resized};
}

std::vector<int> Screen::inputs() const {
  return keys_ ? std::vector{signals_.get(), STDIN_FILENO} : std::vector{signals_.get()};
}

Screen::Event Screen::wait(std::chrono::milliseconds most) {
  pollfd fds[] = {{signals_.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  const int n = poll(fds, keys_ ? 2 : 1, static_cast<int>(most.count()));
  if (n <= 0) return n < 0 && errno != EINTR ? Event{Event::end} : Event{};
  if (fds[0].revents != 0) return signalled();
  char key = 0;
  if (read(STDIN_FILENO, &key, 1) == 1) return {Event::pressed, key};
  return {Event::end};  // the terminal hung up
}

}  // namespace cli
