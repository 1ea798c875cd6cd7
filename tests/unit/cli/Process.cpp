#include "tests/unit/cli/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace cli {

Process::Process(const std::vector<std::string>& argv) {
  int out[2];
  errFd_ = memfd_create("stderr", MFD_CLOEXEC);
  if (errFd_ < 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("no descriptor left");
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out[1], STDOUT_FILENO);
    dup2(errFd_, STDERR_FILENO);
    execv(args[0], args.data());
    _exit(126);
  }
  close(out[1]);
  outFd_ = out[0];
}
Process::~Process() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(outFd_);
  close(errFd_);
}

bool Process::more_p(std::chrono::milliseconds limit) {
  pollfd p{outFd_, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(limit.count())) <= 0) return false;
  char buf[65536];
  const ssize_t n = read(outFd_, buf, sizeof buf);
  if (n <= 0) return false;
  out_.append(buf, static_cast<size_t>(n));
  return true;
}
std::optional<std::string> Process::line(std::chrono::seconds limit) {
  size_t end;
  while ((end = out_.find('\n')) == std::string::npos)
    if (!more_p(limit)) return std::nullopt;
  const std::string text = out_.substr(0, end);
  out_.erase(0, end + 1);
  return text;
}
void Process::signal(int number) const { kill(pid_, number); }
int Process::wait() {
  while (more_p(std::chrono::seconds(20))) {
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
std::string Process::errors() const {
  std::string text(static_cast<size_t>(lseek(errFd_, 0, SEEK_END)), '\0');
  const ssize_t n = pread(errFd_, text.data(), text.size(), 0);
  text.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return text;
}

}  // namespace cli
