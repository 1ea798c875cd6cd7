#include "agent/flow/RecordQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/UdpPam.h"

namespace agent::flow {

RecordQueue::RecordQueue(const RecordLens& lens)
    : lens_(lens), eventFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (!eventFd_) throw platform::ErrnoException(errno, "eventfd");
  for (size_t i = 0; i < blocks; ++i) {
    all_.push_back(std::make_unique<RecordBlock>());
    free_.put(all_.back().get());
  }
}

char* RecordQueue::room(uint8_t place) {
  RecordBlock*& open = open_[place];
  if (open && open->used + lens_[place] > RecordBlock::size) publish(place);
  if (!open) {
    open = free_.take();
    if (!open) return nullptr;
    open->place = place;
    open->used = 0;
  }
  return open->octets.data() + open->used;
}

void RecordQueue::flush() {
  for (uint8_t place = 0; place < packetKinds; ++place)
    if (open_[place] && open_[place]->used > 0) publish(place);
}

void RecordQueue::publish(uint8_t place) {
  filled_.put(std::exchange(open_[place], nullptr));  // as many slots as there are blocks
  const uint64_t one = 1;
  [[maybe_unused]] const auto n = write(eventFd_.get(), &one, sizeof one);
}

RecordBlock* RecordQueue::take() { return filled_.take(); }
void RecordQueue::heard() {
  uint64_t n = 0;
  [[maybe_unused]] const auto got = read(eventFd_.get(), &n, sizeof n);
}

}  // namespace agent::flow
