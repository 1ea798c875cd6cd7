#pragma once
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace cli {

/// A program under test; killed when it outlives its object.
class Process {
 public:
  /// The program gets SIGKILL when this process dies.
  explicit Process(const std::vector<std::string>& argv);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// The next line of standard output, without its end; nothing at the end of output or when none
  /// came in time.
  std::optional<std::string> line(std::chrono::seconds limit = std::chrono::seconds(20));
  void signal(int number) const;
  /// Waits for the end, reads what is left; the exit status, or minus the signal that ended it.
  int wait();
  /// After `wait`: what `line` did not return, and standard error.
  const std::string& rest() const { return out_; }
  std::string errors() const;

 private:
  bool more_p(std::chrono::milliseconds limit);
  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;  // a file, so that the program never waits for us to read it
  std::string out_;
};

}  // namespace cli
