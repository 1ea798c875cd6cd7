#pragma once
#include <termios.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/linux/Fd.h"

namespace cli {

/// The terminal on standard output, drawn as a whole. Its former lines, cursor and modes return
/// with the destructor, and while the process is stopped (SIGTSTP).
///
/// The constructor blocks the signals that end or stop a program; `wait` handles them.
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
  /// out, from 0. False: it could not be written.
  bool draw(const std::string& text, size_t head);
  /// The next key or new size; `none` where nothing comes within `most`. `end`: a signal asks for
  /// it, or the terminal is gone.
  Event wait(std::chrono::milliseconds most);
  /// Descriptors of which one is readable when `wait` would return at once.
  std::vector<int> inputs() const;

 private:
  void enter();
  void leave();
  Event signalled();

  platform::Fd signals_;
  termios before_{};   // filled by the initializer of keys_
  bool keys_ = false;  // standard input is a terminal, too
};

}  // namespace cli
