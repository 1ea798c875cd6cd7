#include "agent/flow/RecordQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "platform/UdpPam.h"

namespace agent::flow {

RecordQueue::RecordQueue() : eventFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (!eventFd_) throw platform::ErrnoException(errno, "eventfd");
  for (size_t i = 0; i < blocks; ++i) {
    all_.push_back(std::make_unique<RecordBlock>());
    free_.put(all_.back().get());
  }
}

char* RecordQueue::room(bool ipv6) {
  RecordBlock*& open = open_[ipv6 ? 1 : 0];
  const size_t len = ipv6 ? flowRecordLen6 : flowRecordLen4;
  if (open && open->used + len > RecordBlock::size) publish(ipv6);
  if (!open) {
    open = free_.take();
    if (!open) return nullptr;
    open->ipv6 = ipv6;
    open->used = 0;
  }
  return open->octets.data() + open->used;
}

void RecordQueue::flush() {
  for (const bool ipv6 : {false, true})
    if (open_[ipv6 ? 1 : 0] && open_[ipv6 ? 1 : 0]->used > 0) publish(ipv6);
}

void RecordQueue::publish(bool ipv6) {
  filled_.put(std::exchange(open_[ipv6 ? 1 : 0], nullptr));  // as many slots as there are blocks
  const uint64_t one = 1;
  [[maybe_unused]] const auto n = write(eventFd_.get(), &one, sizeof one);
}

RecordBlock* RecordQueue::take() { return filled_.take(); }
void RecordQueue::heard() {
  uint64_t n = 0;
  [[maybe_unused]] const auto got = read(eventFd_.get(), &n, sizeof n);
}

}  // namespace agent::flow
