#include "platform/linux/ShmTable.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/Assert.h"
#include "platform/linux/Fd.h"
#include "platform/linux/ShmLayout.h"

namespace platform {
namespace shm {

std::string pathOf(const std::string& name) {
  if (name.size() < 2 || name.size() > 200 || name[0] != '/' ||
      name.find('/', 1) != std::string::npos || name.find('\0') != std::string::npos ||
      name == "/." || name == "/..")
    throw ErrnoException(EINVAL, "shared memory name " + toQuoted(name) +
                                     ": must be '/' and 1 to 199 characters without '/'");
  return "/dev/shm" + name;
}

uint64_t processStart(uint64_t pid, bool& hidden) {
  hidden = false;
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  const Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char buf[1024];
  const ssize_t n = fd ? ::read(fd.get(), buf, sizeof buf - 1) : -1;
  if (n <= 0) {
    // A /proc mounted with hidepid shows other users' processes as absent.
    hidden = !fd && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == EPERM;
    return 0;
  }
  buf[n] = '\0';
  const char* p = ::strrchr(buf, ')');  // the command's name before it may hold anything
  if (!p || p[1] != ' ' || p[2] == 'Z' || p[2] == 'X') return 0;
  ++p;
  for (int field = 3; field < 22 && p; ++field) p = ::strchr(p + 1, ' ');
  return p ? ::strtoull(p + 1, nullptr, 10) : 0;
}

}  // namespace shm

namespace {

using shm::Header;

/// One writer per name: a lock that the kernel drops when its holder dies, on a file of its own
/// that only the writer's user can open. (On the segment, any reader could hold it.)
class WriterLock {
 public:
  explicit WriterLock(const std::string& path);
  ~WriterLock() {
    if (fd_) ::unlink(path_.c_str());  // while it is locked: a successor notices and makes another
  }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  const std::string path_;
  Fd fd_;
};

WriterLock::WriterLock(const std::string& path) : path_(path) {
  for (;;) {
    Fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) throw ErrnoException(errno, path);
    // The directory is everybody's: what is cut to a few octets below must be nothing else.
    if (!S_ISREG(st.st_mode) || st.st_nlink > 1)
      throw ErrnoException(EACCES, path + ": not a plain file with one name");
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
      const int err = errno;
      char pid[24] = {};
      const ssize_t n = ::pread(fd.get(), pid, sizeof pid - 1, 0);
      if (err != EWOULDBLOCK) throw ErrnoException(err, path);
      throw ErrnoException(EBUSY, path + ": in use by process " + (n > 0 ? pid : "(starting)"));
    }
    struct stat now {};
    if (::stat(path.c_str(), &now) != 0 || now.st_ino != st.st_ino || now.st_dev != st.st_dev)
      continue;  // its holder was just leaving
    const std::string pid = std::to_string(::getpid());
    if (::ftruncate(fd.get(), 0) != 0 ||
        ::pwrite(fd.get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size()))
      throw ErrnoException(errno, path);
    fd_ = std::move(fd);
    return;
  }
}

class ShmTable final : public SharedTable {
 public:
  ShmTable(const std::string& name, const shm::Shape& shape);
  ~ShmTable() override;

  size_t keyLen() const override { return shape_.keyLen; }
  size_t valueLen() const override { return shape_.valueLen; }
  size_t capacity() const override { return shape_.capacity; }
  size_t size() const override { return used_; }
  bool put(Octets key, Octets value) override;
  bool get(Octets key, std::span<std::byte> value) const override;
  bool del(Octets key) override;
  void delAll() override;
  void each(const std::function<void(Octets, Octets)>& visit) const override;

 private:
  struct Place {
    uint8_t* slot;  // holds the key, or is where it would go
    bool found;
  };

  void create(const std::string& path);
  Place find(Octets key, uint64_t tag) const;
  bool hasKey(const uint8_t* slot, Octets key) const {
    return std::memcmp(keyOf(slot).data(), key.data(), key.size()) == 0;
  }
  /// Where the last record was, if this is its key: who sends much to one collector asks again.
  uint8_t* again(Octets key) const {
    return last_ && tagOf(last_) != shm::tagEmpty && hasKey(last_, key) ? last_ : nullptr;
  }
  uint8_t* slotAt(size_t i) const {
    return base_ + sizeof(Header) + (i & (shape_.slotCount - 1)) * shape_.slotLen;
  }
  size_t indexOf(const uint8_t* slot) const {
    return static_cast<size_t>(slot - base_ - sizeof(Header)) / shape_.slotLen;
  }
  Octets keyOf(const uint8_t* slot) const {
    return {reinterpret_cast<const std::byte*>(slot + shm::keyOffset), shape_.keyLen};
  }
  Octets valueOf(const uint8_t* slot) const {
    return {reinterpret_cast<const std::byte*>(slot + shape_.valueOffset()), shape_.valueLen};
  }
  // Only this process writes the segment, so what it reads there needs no protocol.
  static uint64_t plain(const uint8_t* at) {
    uint64_t v = 0;
    std::memcpy(&v, at, sizeof v);
    return v;
  }
  static uint64_t tagOf(const uint8_t* slot) { return plain(slot + shm::tagOffset); }

  const shm::Shape shape_;
  const std::string path_;
  WriterLock lock_;
  uint8_t* base_ = nullptr;
  ino_t inode_ = 0;
  size_t used_ = 0;
  mutable uint8_t* last_ = nullptr;  // slot
};

void wordIs(uint8_t* at, uint64_t v) { shm::word(at).store(v, std::memory_order_release); }

/// A count that is odd while this lives.
class OddCount {
 public:
  explicit OddCount(uint8_t* at)
      : count_(shm::word(at)), was_(count_.load(std::memory_order_relaxed)) {
    count_.store(was_ + 1, std::memory_order_relaxed);  // ordered by the release of what follows
  }
  ~OddCount() { count_.store(was_ + 2, std::memory_order_release); }
  OddCount(const OddCount&) = delete;
  OddCount& operator=(const OddCount&) = delete;

 private:
  std::atomic_ref<uint64_t> count_;
  const uint64_t was_;
};
/// A writer that dies in a change leaves the slot's sequence odd, and no reader believes the slot
/// again; the next writer starts a segment of its own.
struct SlotChange : OddCount {
  explicit SlotChange(uint8_t* slot) : OddCount(slot + shm::seqOffset) {}
};
struct DeletionCount : OddCount {
  explicit DeletionCount(uint8_t* base) : OddCount(base + offsetof(Header, deletions)) {}
};

void storeOctets(uint8_t* to, SharedTable::Octets octets) {
  uint64_t w = 0;
  size_t i = 0;
  for (; i + sizeof w <= octets.size(); i += sizeof w) {
    std::memcpy(&w, octets.data() + i, sizeof w);
    wordIs(to + i, w);
  }
  if (i == octets.size()) return;
  w = 0;
  std::memcpy(&w, octets.data() + i, octets.size() - i);
  wordIs(to + i, w);
}

ShmTable::ShmTable(const std::string& name, const shm::Shape& shape)
    : shape_(shape), path_(shm::pathOf(name)), lock_(path_ + ".lock") {
  // Built under another name and then put in place: no reader sees half of it.
  const std::string path = path_ + ".new";
  ::unlink(path.c_str());  // of a writer that died here
  try {
    create(path);
  } catch (...) {
    if (base_) ::munmap(base_, shape_.segmentLen);
    ::unlink(path.c_str());
    throw;
  }
}

void ShmTable::create(const std::string& path) {
  timespec t{};
  ::clock_gettime(CLOCK_REALTIME, &t);
  const uint64_t createdNs =
      static_cast<uint64_t>(t.tv_sec) * 1000000000 + static_cast<uint64_t>(t.tv_nsec);
  uint64_t generation = createdNs;
  const Fd old(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (old) {
    Header h{};
    if (::pread(old.get(), &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h) ||
        std::memcmp(h.magic, shm::magic, sizeof h.magic) != 0)
      throw ErrnoException(EEXIST, path_ + ": is something else; remove it or choose another name");
    generation = std::max(generation, h.generation + 1);
  } else if (errno != ENOENT) {
    throw ErrnoException(errno, path_);
  }

  const Fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd) throw ErrnoException(errno, path);
  // All of it now: a file system that is full later would end the process at a store.
  if (const int err = ::posix_fallocate(fd.get(), 0, static_cast<off_t>(shape_.segmentLen)))
    throw ErrnoException(err, path + ": " + std::to_string(shape_.segmentLen) + " octets");
  void* base = ::mmap(nullptr, shape_.segmentLen, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (base == MAP_FAILED) throw ErrnoException(errno, path);
  base_ = static_cast<uint8_t*>(base);

  bool hidden = false;
  Header h{};
  std::memcpy(h.magic, shm::magic, sizeof h.magic);
  h.layoutVersion = shm::layoutVersion;
  h.byteOrderMark = shm::byteOrderMark;
  h.generation = generation;
  h.state = shm::live;
  h.writerPid = static_cast<uint64_t>(::getpid());
  h.writerStart = shm::processStart(h.writerPid, hidden);
  h.createdNs = createdNs;
  h.keyLen = shape_.keyLen;
  h.valueLen = shape_.valueLen;
  h.capacity = shape_.capacity;
  h.slotCount = shape_.slotCount;
  h.slotLen = shape_.slotLen;
  h.slotsOffset = sizeof(Header);
  h.segmentLen = shape_.segmentLen;
  std::memcpy(base_, &h, sizeof h);

  struct stat st {};
  if (::fchmod(fd.get(), 0644) != 0 || ::fstat(fd.get(), &st) != 0 ||
      ::rename(path.c_str(), path_.c_str()) != 0)
    throw ErrnoException(errno, path_);
  inode_ = st.st_ino;
}

ShmTable::~ShmTable() {
  wordIs(base_ + offsetof(Header, state), shm::closed);
  struct stat st {};
  if (::stat(path_.c_str(), &st) == 0 && st.st_ino == inode_) ::unlink(path_.c_str());
  ::munmap(base_, shape_.segmentLen);
}

ShmTable::Place ShmTable::find(Octets key, uint64_t tag) const {
  for (size_t i = tag;; ++i) {
    uint8_t* slot = slotAt(i);
    const uint64_t t = tagOf(slot);
    if (t == shm::tagEmpty) return {slot, false};
    if (t == tag && hasKey(slot, key)) return {slot, true};
  }
}

bool ShmTable::put(Octets key, Octets value) {
  TARN_ASSERT(key.size() == shape_.keyLen && value.size() == shape_.valueLen);
  if (uint8_t* known = again(key)) {
    const SlotChange change(known);
    storeOctets(known + shape_.valueOffset(), value);
    return true;
  }
  const uint64_t tag = shm::hashOf(key);
  const auto [slot, found] = find(key, tag);
  if (!found && used_ == shape_.capacity) return false;
  {
    const SlotChange change(slot);
    if (!found) {
      wordIs(slot + shm::tagOffset, tag);
      storeOctets(slot + shm::keyOffset, key);
    }
    storeOctets(slot + shape_.valueOffset(), value);
  }
  if (!found) wordIs(base_ + offsetof(Header, used), ++used_);
  last_ = slot;
  return true;
}

bool ShmTable::get(Octets key, std::span<std::byte> value) const {
  TARN_ASSERT(key.size() == shape_.keyLen && value.size() == shape_.valueLen);
  uint8_t* known = again(key);
  if (!known) {
    const auto [slot, found] = find(key, shm::hashOf(key));
    if (!found) return false;
    known = last_ = slot;
  }
  std::memcpy(value.data(), valueOf(known).data(), value.size());
  return true;
}

bool ShmTable::del(Octets key) {
  TARN_ASSERT(key.size() == shape_.keyLen);
  const auto [slot, found] = find(key, shm::hashOf(key));
  if (!found) return false;
  const DeletionCount count(base_);
  // Records behind the hole that a search could no longer reach move up into it, so that searches
  // stay short however many keys come and go. At each moment every record is in at least one
  // place; a reader that passed both at the wrong times finds the count changed and looks again.
  const size_t mask = shape_.slotCount - 1;
  size_t hole = indexOf(slot);
  for (size_t i = hole + 1;; ++i) {
    const uint8_t* next = slotAt(i);
    const uint64_t tag = tagOf(next);
    if (tag == shm::tagEmpty) break;
    // Its search begins behind the hole: it stays.
    if (((i - tag) & mask) < ((i - hole) & mask)) continue;
    const SlotChange change(slotAt(hole));
    for (size_t at = shm::tagOffset; at < shape_.slotLen; at += 8)
      wordIs(slotAt(hole) + at, plain(next + at));
    hole = i;
  }
  {
    const SlotChange change(slotAt(hole));
    wordIs(slotAt(hole) + shm::tagOffset, shm::tagEmpty);
  }
  wordIs(base_ + offsetof(Header, used), --used_);
  return true;
}

void ShmTable::delAll() {
  const DeletionCount count(base_);
  for (size_t i = 0; i < shape_.slotCount; ++i) {
    if (tagOf(slotAt(i)) == shm::tagEmpty) continue;
    const SlotChange change(slotAt(i));
    wordIs(slotAt(i) + shm::tagOffset, shm::tagEmpty);
  }
  used_ = 0;
  wordIs(base_ + offsetof(Header, used), used_);
}

void ShmTable::each(const std::function<void(Octets, Octets)>& visit) const {
  for (size_t i = 0; i < shape_.slotCount; ++i)
    if (tagOf(slotAt(i)) != shm::tagEmpty) visit(keyOf(slotAt(i)), valueOf(slotAt(i)));
}

}  // namespace

Ptr<SharedTable> shmTableFactory(const std::string& name, size_t keyLen, size_t valueLen,
                                 size_t capacity) {
  shm::Shape shape;
  if (!shm::Shape::of(keyLen, valueLen, capacity, shape))
    throw ErrnoException(
        EINVAL, "shared memory " + name +
                    ": lengths and capacity must be from 1 to 16777216, and all of it below 4 GiB");
  return Ptr<SharedTable>::adopt(new ShmTable(name, shape));
}

}  // namespace platform
