#pragma once
#include <termios.h>

#include <chrono>
#include <string>

#include "platform/linux/Fd.h"

namespace cli {

/// A terminal on standard output that is drawn as a whole. Its lines, cursor and modes of before
/// are there again when this ends, and while the process is stopped (SIGTSTP).
///
/// From its making on, the signals that end or stop a program are blocked and handled in `wait`.
class Screen {
 public:
  struct Size {
    size_t rows = 24;
    size_t columns = 80;
  };
  struct Event {
    enum Kind : uint8_t { none, pressed, resized, end } kind = none;
    char key = 0;
  };

  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  static Size size();
  /// Replaces what is shown; lines are cut where the terminal ends. `head`: the line that stands
  /// out, from 0. False: nobody sees it any more.
  bool draw(const std::string& text, size_t head);
  /// The next key or change, or none within that time. `end`: a signal says so, or the terminal is
  /// gone.
  Event wait(std::chrono::milliseconds most);

 private:
  void enter();
  void leave();
  Event signalled();

  platform::Fd signals_;
  termios before_{};   // filled by the test that follows
  bool keys_ = false;  // standard input is a terminal, too
};

}  // namespace cli
