#include "platform/linux/ShmTable.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/Assert.h"
#include "platform/linux/Fd.h"
#include "platform/linux/ShmLayout.h"
#include "platform/linux/ShmMapping.h"

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

namespace {
/// Clock ticks that this process's time namespace adds to what /proc says of the time since boot.
int64_t bootOffset() {
  const Fd fd(::open("/proc/self/timens_offsets", O_RDONLY | O_CLOEXEC));
  char buf[256];
  const ssize_t n = fd ? ::read(fd.get(), buf, sizeof buf - 1) : -1;
  if (n <= 0) return 0;  // a kernel without time namespaces
  buf[n] = '\0';
  const char* p = ::strstr(buf, "boottime");
  long long s = 0;
  long long ns = 0;
  if (!p || std::sscanf(p, "boottime %lld %lld", &s, &ns) != 2) return 0;
  const long long ticks = ::sysconf(_SC_CLK_TCK);
  return s * ticks + ns * ticks / 1000000000;
}
}  // namespace

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
  return p ? ::strtoull(p + 1, nullptr, 10) - static_cast<uint64_t>(bootOffset()) : 0;
}

}  // namespace shm

namespace {

using shm::Header;

/// About a file that is in the way: whose it is, and what to do.
ErrnoException inTheWay(int err, const std::string& path, const std::string& what = {}) {
  struct stat st {};
  const std::string owner =
      ::lstat(path.c_str(), &st) == 0 ? "owned by user " + std::to_string(st.st_uid) : "gone now";
  return {err, path + ": " + what + owner + "; remove it (rm " + path + ") or choose another name"};
}

/// One writer per name: a lock that the kernel drops when its holder dies, on a file of its own
/// that only the writer's user can open. (On the segment, any reader could hold it.)
class WriterLock {
 public:
  explicit WriterLock(const std::string& path);
  ~WriterLock() {
    if (held()) ::unlink(path_.c_str());  // while it is locked: a successor notices
  }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;
  /// The file is still the one that is locked.
  bool held() const { return fd_ && isNamed(fd_.get()); }

 private:
  bool isNamed(int fd) const {
    struct stat locked {};
    struct stat named {};
    return ::fstat(fd, &locked) == 0 && ::lstat(path_.c_str(), &named) == 0 &&
           locked.st_ino == named.st_ino && locked.st_dev == named.st_dev;
  }
  const std::string path_;
  Fd fd_;
};

WriterLock::WriterLock(const std::string& path) : path_(path) {
  for (;;) {
    Fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    struct stat st {};
    if (!fd && (errno == EACCES || errno == ELOOP)) throw inTheWay(errno, path);
    if (!fd || ::fstat(fd.get(), &st) != 0) throw ErrnoException(errno, path);
    // The directory may be everybody's: what is cut to a few octets below must be nothing else.
    if (!S_ISREG(st.st_mode) || st.st_nlink > 1)
      throw inTheWay(EACCES, path, "not a plain file with one name, ");
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
      const int err = errno;
      char pid[24] = {};
      const ssize_t n = ::pread(fd.get(), pid, sizeof pid - 1, 0);
      if (err != EWOULDBLOCK) throw ErrnoException(err, path);
      throw ErrnoException(EBUSY, path + ": in use by process " + (n > 0 ? pid : "(starting)"));
    }
    if (!isNamed(fd.get())) continue;  // its holder was just leaving
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
  ShmTable(const std::string& name, const shm::Shape& shape, const std::string& lockDir);
  ~ShmTable() override;
  std::string restore();

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
  struct Search {
    uint8_t* slot;  // holds the key, or is where it would go
    bool found;
  };

  void create();
  void build(const std::string& path, int fd, uint64_t generation);
  Search find(Octets key, uint64_t tag) const;
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
  const std::string lockPath_;
  std::unique_ptr<WriterLock> lock_;
  shm::Mapping map_;
  uint8_t* base_ = nullptr;  // of `map_`
  dev_t dev_ = 0;
  ino_t inode_ = 0;
  uint64_t generation_ = 0;
  uint64_t created_ = 0;  // UTC, nanoseconds
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

ShmTable::ShmTable(const std::string& name, const shm::Shape& shape, const std::string& lockDir)
    : shape_(shape),
      path_(shm::pathOf(name)),
      lockPath_(lockDir + name + ".lock"),
      lock_(std::make_unique<WriterLock>(lockPath_)) {
  create();
}

/// The generation of the table that has the name now, 0 when there is none. Throws when it may not
/// be replaced.
uint64_t generationOf(const std::string& path) {
  const Fd old(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!old && errno == ENOENT) return 0;
  Header h{};
  if (!old || ::pread(old.get(), &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h) ||
      std::memcmp(h.magic, shm::magic, sizeof h.magic) != 0)
    throw inTheWay(old ? EEXIST : errno, path, "no table of ours, ");
  // Its writer may have its lock in another directory.
  bool hidden = false;
  const uint64_t start = shm::processStart(h.writerPid, hidden);
  if (h.state == shm::live && (hidden || shm::sameStart(start, h.writerStart)))
    throw ErrnoException(EBUSY, path + ": in use by process " + std::to_string(h.writerPid));
  return h.generation;
}

/// Builds the segment under another name and then puts it in place: no reader sees half of it.
void ShmTable::create() {
  const uint64_t old = generationOf(path_);
  std::string path = path_ + ".new";
  ::unlink(path.c_str());  // of a writer that died here
  Fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd && errno == EEXIST) {
    path += "-XXXXXX";  // another user's: the name can be foreseen
    fd = Fd(::mkostemp(path.data(), O_CLOEXEC));
  }
  if (!fd) throw ErrnoException(errno, path);
  try {
    build(path, fd.get(), old + 1);
  } catch (...) {
    ::unlink(path.c_str());
    throw;
  }
}

void ShmTable::build(const std::string& path, int fd, uint64_t generation) {
  // All of it now: a file system that is full later would end the process at a store.
  if (const int err = ::posix_fallocate(fd, 0, static_cast<off_t>(shape_.segmentLen)))
    throw ErrnoException(err, path + ": " + std::to_string(shape_.segmentLen) + " octets");
  shm::Mapping map(fd, shape_.segmentLen, true);
  const size_t slotsLen = shape_.segmentLen - sizeof(Header);
  if (base_) std::memcpy(map.base() + sizeof(Header), base_ + sizeof(Header), slotsLen);
  if (map_.lost()) std::memset(map.base() + sizeof(Header), 0, slotsLen);

  timespec t{};
  ::clock_gettime(CLOCK_REALTIME, &t);
  const uint64_t now =
      static_cast<uint64_t>(t.tv_sec) * 1000000000 + static_cast<uint64_t>(t.tv_nsec);
  bool hidden = false;
  Header h{};
  std::memcpy(h.magic, shm::magic, sizeof h.magic);
  h.layoutVersion = shm::layoutVersion;
  h.byteOrderMark = shm::byteOrderMark;
  h.generation = generation_ = std::max({now, generation, generation_ + 1});
  h.state = shm::live;
  h.writerPid = static_cast<uint64_t>(::getpid());
  h.writerStart = shm::processStart(h.writerPid, hidden);
  h.createdNs = created_ = created_ == 0 || map_.lost() ? now : created_;
  h.keyLen = shape_.keyLen;
  h.valueLen = shape_.valueLen;
  h.capacity = shape_.capacity;
  h.slotCount = shape_.slotCount;
  h.slotLen = shape_.slotLen;
  h.slotsOffset = sizeof(Header);
  h.segmentLen = shape_.segmentLen;
  h.used = used_ = map_.lost() ? 0 : used_;
  std::memcpy(map.base(), &h, sizeof h);

  struct stat st {};
  if (::fchmod(fd, 0644) != 0 || ::fstat(fd, &st) != 0) throw ErrnoException(errno, path);
  if (::rename(path.c_str(), path_.c_str()) != 0) throw inTheWay(errno, path_);
  dev_ = st.st_dev;
  inode_ = st.st_ino;
  map_ = std::move(map);
  base_ = map_.base();
  last_ = nullptr;
}

std::string ShmTable::restore() {
  std::string wrong;
  if (!lock_->held()) {
    lock_ = std::make_unique<WriterLock>(lockPath_);
    wrong = lockPath_ + " was removed";
  }
  struct stat st {};
  const bool there = ::lstat(path_.c_str(), &st) == 0;
  const bool ours = there && st.st_dev == dev_ && st.st_ino == inode_;
  if (ours && !map_.lost() && static_cast<uint64_t>(st.st_size) == shape_.segmentLen) return wrong;
  if (ours) ::unlink(path_.c_str());  // readers may have mapped what is left of it
  create();
  return path_ + (!there ? " was removed" : ours ? " was truncated" : " was replaced");
}

ShmTable::~ShmTable() {
  wordIs(base_ + offsetof(Header, state), shm::closed);
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == inode_)
    ::unlink(path_.c_str());
}

ShmTable::Search ShmTable::find(Octets key, uint64_t tag) const {
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
                                 size_t capacity, const std::string& lockDir) {
  shm::Shape shape;
  if (!shm::Shape::of(keyLen, valueLen, capacity, shape))
    throw ErrnoException(
        EINVAL, "shared memory " + name +
                    ": lengths and capacity must be from 1 to 16777216, and all of it below 4 GiB");
  return Ptr<SharedTable>::adopt(new ShmTable(name, shape, lockDir));
}

std::string shmTableRestore(SharedTable& table) { return static_cast<ShmTable&>(table).restore(); }

}  // namespace platform
