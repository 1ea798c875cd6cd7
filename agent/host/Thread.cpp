#include "agent/host/Thread.h"

#include <csignal>
#include <future>
#include <system_error>

#include "agent/host/Capabilities.h"
#include "platform/UdpPam.h"

namespace agent {
namespace {
/// No signal reaches the calling thread, nor those that it starts, meanwhile.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};
}  // namespace

std::thread startThread(std::function<void()> body) {
  std::promise<int> refused;
  auto error = refused.get_future();
  const SignalsBlocked blocked;
  std::thread thread;
  try {
    thread = std::thread([body = std::move(body), refused = std::move(refused)]() mutable {
      const int err = capabilitiesDel();
      refused.set_value(err);
      if (err == 0) body();
    });
  } catch (const std::system_error& e) {
    throw platform::ErrnoException(e.code().value(), "cannot start a thread");
  }
  if (const int err = error.get(); err != 0) {
    thread.join();
    throw platform::ErrnoException(err, "a thread cannot give up its capabilities: capset");
  }
  return thread;
}

}  // namespace agent
