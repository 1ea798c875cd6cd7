#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "platform/Assert.h"
#include "platform/linux/Fd.h"
#include "platform/linux/ShmLayout.h"
#include "platform/linux/ShmMapping.h"
#include "platform/linux/ShmTable.h"

namespace platform {
namespace {

using shm::Header;

/// How long one call waits for a writer in the middle of records. A writer needs a microsecond for
/// one; when it was interrupted there, its processor's time slices; when it died, for ever.
class Patience {
 public:
  explicit Patience(std::function<bool()> writerLives) : writerLives_(std::move(writerLives)) {}
  /// The record changes. False: give it up.
  bool wait() {
    ++retries_;
    if (++tries_ <= (sleeps_ > 0 ? spins : 1)) return true;
    if (sleeps_ == sleepsMax && !writerLives_()) sleeps_ = 0;
    if (sleeps_ == 0) return false;
    --sleeps_;
    const timespec pause{0, 200000};
    ::nanosleep(&pause, nullptr);
    return true;
  }
  void nextRecord() { tries_ = 0; }
  uint64_t retries() const { return retries_; }

 private:
  static constexpr int spins = 200;
  static constexpr int sleepsMax = 100;  // for the whole call: about 25 ms
  const std::function<bool()> writerLives_;
  int tries_ = 0;
  int sleeps_ = sleepsMax;
  uint64_t retries_ = 0;
};
constexpr int walksMax = 4;

class ShmTableReaderImpl final : public ShmTableReader {
 public:
  ShmTableReaderImpl(const std::string& name, size_t keyLen, size_t valueLen)
      : path_(shm::pathOf(name)), keyLen_(keyLen), valueLen_(valueLen) {}

  Snapshot snapshot() override;
  bool get(SharedTable::Octets key, std::vector<std::byte>& value) override;

 private:
  using State = Snapshot::State;
  enum class Read { empty, other, record, unreadable };

  State refresh();
  State map(int fd, const struct stat& st);
  void unmap();
  const uint8_t* slotAt(size_t i) const {
    return base_ + sizeof(Header) + (i & (shape_.slotCount - 1)) * shape_.slotLen;
  }
  uint64_t headerWord(size_t offset) const { return shm::load(base_ + offset); }
  State writerState() const;
  Patience patience() const {
    return Patience([this] { return writerState() == State::live; });
  }
  uint64_t deletions() const { return headerWord(offsetof(Header, deletions)); }
  Read read(const uint8_t* slot, uint64_t wantedTag, Patience& patience, Record& out) const;
  void walk(Patience& patience, Snapshot& out) const;

  const std::string path_;
  const size_t keyLen_;
  const size_t valueLen_;
  shm::Mapping map_;
  const uint8_t* base_ = nullptr;  // of `map_`
  dev_t dev_ = 0;
  ino_t inode_ = 0;
  // Checked once; the header in the segment is not believed again.
  Header header_{};
  shm::Shape shape_;
};

/// Has the segment mapped that has the name now (`live`), or none.
ShmTableReader::Snapshot::State ShmTableReaderImpl::refresh() {
  struct stat st {};
  if (::lstat(path_.c_str(), &st) != 0) {
    const int err = errno;
    unmap();
    if (err == ENOENT) return State::absent;
    throw ErrnoException(err, path_);
  }
  // The mapping keeps its inode alive, so no other file can have the number. A size that changed
  // means that somebody meddles with the segment; beyond its end a load would be fatal.
  if (base_ && st.st_dev == dev_ && st.st_ino == inode_ &&
      static_cast<uint64_t>(st.st_size) == shape_.segmentLen && !map_.lost())
    return State::live;
  unmap();
  if (!S_ISREG(st.st_mode)) return State::foreign;
  const Fd fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!fd) {
    if (errno == ENOENT) return State::absent;
    if (errno == ELOOP) return State::foreign;
    throw ErrnoException(errno, path_);
  }
  if (::fstat(fd.get(), &st) != 0) throw ErrnoException(errno, path_);
  return map(fd.get(), st);
}

ShmTableReader::Snapshot::State ShmTableReaderImpl::map(int fd, const struct stat& st) {
  Header h{};
  shm::Shape shape;
  if (!S_ISREG(st.st_mode) || ::pread(fd, &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h) ||
      std::memcmp(h.magic, shm::magic, sizeof h.magic) != 0 ||
      h.layoutVersion != shm::layoutVersion || h.byteOrderMark != shm::byteOrderMark ||
      h.keyLen != keyLen_ || h.valueLen != valueLen_ ||
      !shm::Shape::of(h.keyLen, h.valueLen, h.capacity, shape) || h.slotCount != shape.slotCount ||
      h.slotLen != shape.slotLen || h.slotsOffset != sizeof(Header) ||
      h.segmentLen != shape.segmentLen || static_cast<uint64_t>(st.st_size) != shape.segmentLen)
    return State::foreign;
  map_ = shm::Mapping(fd, shape.segmentLen, false);
  base_ = map_.base();
  dev_ = st.st_dev;
  inode_ = st.st_ino;
  header_ = h;
  shape_ = shape;
  return State::live;
}

void ShmTableReaderImpl::unmap() {
  map_ = {};
  base_ = nullptr;
}

ShmTableReader::Snapshot::State ShmTableReaderImpl::writerState() const {
  if (headerWord(offsetof(Header, state)) != shm::live) return State::closed;
  bool hidden = false;
  const uint64_t start = shm::processStart(header_.writerPid, hidden);
  return hidden || shm::sameStart(start, header_.writerStart) ? State::live : State::dead;
}

/// Copies a record out when its tag is the wanted one (0: any). What is copied while the writer is
/// at it is thrown away: the sequence is odd, or another one afterwards.
ShmTableReaderImpl::Read ShmTableReaderImpl::read(const uint8_t* slot, uint64_t wantedTag,
                                                  Patience& patience, Record& out) const {
  patience.nextRecord();
  do {
    const uint64_t seq = shm::load(slot + shm::seqOffset);
    if (seq & 1) continue;
    const uint64_t tag = shm::load(slot + shm::tagOffset);
    Read result = Read::record;
    if (tag == shm::tagEmpty) {
      result = Read::empty;
    } else if (wantedTag != 0 && tag != wantedTag) {
      result = Read::other;
    } else {
      auto copy = [](const uint8_t* from, std::vector<std::byte>& to, size_t len) {
        to.resize(len);
        size_t i = 0;
        for (; i + 8 <= len; i += 8) {
          const uint64_t w = shm::load(from + i);
          std::memcpy(to.data() + i, &w, 8);
        }
        const uint64_t w = i < len ? shm::load(from + i) : 0;
        std::memcpy(to.data() + i, &w, len - i);
      };
      copy(slot + shm::keyOffset, out.key, keyLen_);
      copy(slot + shape_.valueOffset(), out.value, valueLen_);
    }
    if (shm::load(slot + shm::seqOffset) == seq) return result;
  } while (patience.wait());
  return Read::unreadable;
}

void ShmTableReaderImpl::walk(Patience& patience, Snapshot& out) const {
  out.records.clear();
  out.unreadable = 0;
  out.records.reserve(std::min<uint64_t>(headerWord(offsetof(Header, used)), shape_.capacity));
  Record record;
  for (size_t i = 0; i < shape_.slotCount; ++i) {
    switch (read(slotAt(i), 0, patience, record)) {
      case Read::record:
        out.records.push_back(std::move(record));
        record = {};
        break;
      case Read::unreadable:
        ++out.unreadable;
        break;
      case Read::empty:
      case Read::other:
        break;
    }
  }
}

/// Leaves one record of each key.
void dropRepeated(std::vector<ShmTableReader::Record>& records) {
  auto byKey = [](const ShmTableReader::Record& r) -> const std::vector<std::byte>& {
    return r.key;
  };
  std::ranges::stable_sort(records, {}, byKey);
  // Not ranges::unique, whose result clang 14 cannot make with libstdc++ 12.
  const auto same = [](const auto& a, const auto& b) { return a.key == b.key; };
  records.erase(std::unique(records.begin(), records.end(), same), records.end());
}

ShmTableReader::Snapshot ShmTableReaderImpl::snapshot() {
  Snapshot out;
  out.state = refresh();
  if (!base_) return out;
  out.writerPid = static_cast<int>(header_.writerPid);
  out.startTime = static_cast<double>(header_.createdNs) * 1e-9;
  out.generation = header_.generation;
  Patience patience = this->patience();
  // A deletion moves records, and one that moves may be missed or met twice.
  bool still = false;
  for (int i = 0; i < walksMax && !still; ++i) {
    const uint64_t before = deletions();
    walk(patience, out);
    still = before == deletions() && before % 2 == 0;
    if (!still && !patience.wait()) break;
  }
  if (!still) dropRepeated(out.records);
  out.retries = patience.retries();
  out.state = map_.lost() ? State::foreign : writerState();
  if (out.state == State::closed || out.state == State::foreign) out.records.clear();
  return out;
}

bool ShmTableReaderImpl::get(SharedTable::Octets key, std::vector<std::byte>& value) {
  TARN_ASSERT(key.size() == keyLen_);
  refresh();
  if (!base_ || headerWord(offsetof(Header, state)) != shm::live) return false;
  const uint64_t tag = shm::hashOf(key);
  Patience patience = this->patience();
  Record record;
  for (int walk = 0; walk < walksMax; ++walk) {
    const uint64_t before = deletions();
    for (size_t i = 0; i < shape_.slotCount; ++i) {
      const Read r = read(slotAt(tag + i), tag, patience, record);
      if (r == Read::empty) break;
      if (r != Read::record || !std::ranges::equal(record.key, key)) continue;
      value = std::move(record.value);
      return !map_.lost();
    }
    if (before == deletions() && before % 2 == 0) return false;
    patience.nextRecord();
    if (!patience.wait()) return false;
  }
  return false;
}

}  // namespace

std::unique_ptr<ShmTableReader> shmTableReader(const std::string& name, size_t keyLen,
                                               size_t valueLen) {
  return std::make_unique<ShmTableReaderImpl>(name, keyLen, valueLen);
}

}  // namespace platform
