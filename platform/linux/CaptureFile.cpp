#include "platform/linux/CaptureFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "platform/UdpPam.h"
#include "platform/linux/Fd.h"
#include "platform/linux/Printable.h"

// The formats: draft-ietf-opsawg-pcap and draft-ietf-opsawg-pcapng.
namespace platform {
namespace {
constexpr uint32_t pcapMicroseconds = 0xa1b2c3d4;
constexpr uint32_t pcapNanoseconds = 0xa1b23c4d;
constexpr uint32_t byteOrderMagic = 0x1a2b3c4d;
constexpr size_t pcapHeaderLen = 24;
constexpr size_t recordHeaderLen = 16;

enum BlockType : uint32_t {
  interfaceDescription = 1,
  obsoletePacket = 2,
  simplePacket = 3,
  enhancedPacket = 6,
  sectionHeader = 0x0a0d0d0a
};
enum InterfaceOption : uint16_t {
  endOfOptions = 0,
  ifName = 2,
  ifTsResol = 9,
  ifFcsLen = 13,
  ifTsOffset = 14
};
uint32_t blockLenMin(uint32_t type) {
  switch (type) {
    case sectionHeader:
      return 28;
    case interfaceDescription:
      return 20;
    case simplePacket:
      return 16;
    case obsoletePacket:
    case enhancedPacket:
      return 32;
    default:
      return 12;
  }
}

// What the usual writers stay below. Greater lengths are damage, not data.
constexpr uint32_t capLenUsual = 262144;
constexpr uint32_t lengthMax = 16 << 20;
constexpr size_t interfacesMax = 65536;
constexpr size_t warningsMax = 8;
constexpr int64_t timeMax = (int64_t{1} << 62) - 1;

// The file is read in such pieces: few system calls, and the copy stays in the processor's cache.
constexpr size_t pieceLen = 256 << 10;

uint32_t swapped(uint32_t v) { return __builtin_bswap32(v); }

std::string hex(uint32_t v) {
  char text[9];
  std::snprintf(text, sizeof text, "%08x", v);
  return text;
}

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a pipe";
  if (S_ISSOCK(mode)) return "a socket";
  return "a device";
}
}  // namespace

CaptureFile::CaptureFile(const std::string& path) : name_(path) {
  const std::string remedy = "; give the name of a regular file";
  if (path == "-") throw std::runtime_error("-: the standard input is not read" + remedy);
  // Without waiting, if it is a pipe, for its writer.
  fd_ = platform::Fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd_) throw platform::ErrnoException(errno, name_ + ": cannot be opened");
  struct stat info {};
  if (::fstat(fd_.get(), &info) != 0)
    throw platform::ErrnoException(errno, name_ + ": its size cannot be read");
  if (!S_ISREG(info.st_mode))
    throw std::runtime_error(name_ + ": is " + kindOf(info.st_mode) + remedy);
  size_ = static_cast<size_t>(info.st_size);
  ::posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);  // a hint: refused, it only costs time
  begin();
}

CaptureFile::CaptureFile(std::string name, std::span<const uint8_t> octets)
    : name_(std::move(name)), data_(octets.data()), len_(octets.size()), size_(len_) {
  begin();
}

void CaptureFile::begin() {
  if (!have(std::min(size_, pcapHeaderLen))) throw std::runtime_error(error_);
  uint32_t magic = 0;
  if (size_ >= sizeof magic) {
    std::memcpy(&magic, data_, sizeof magic);
    if (magic == sectionHeader) {
      pcapng_ = true;
      return;
    }
    for (const uint32_t m : {magic, swapped(magic)}) {
      if (m != pcapMicroseconds && m != pcapNanoseconds) continue;
      swap_ = m != magic;
      fractionNs_ = m == pcapNanoseconds ? 1 : 1000;
      beginPcap();
      return;
    }
  }
  std::string found = "an empty file";
  if (size_ > 0) {
    found.clear();
    for (size_t i = 0; i < std::min<size_t>(size_, 4); ++i) found += hex(data_[i]).substr(6);
    if (found.starts_with("1f8b")) found += " (gzip: decompress it first)";
    if (found == "28b52ffd") found += " (zstd: decompress it first)";
  }
  throw std::runtime_error(name_ + ": octet 0: found " + found +
                           "; a capture begins with 0a0d0d0a (pcapng), or with a1b2c3d4 or "
                           "a1b23c4d in either byte order (pcap)");
}

void CaptureFile::beginPcap() {
  if (size_ < pcapHeaderLen) {
    fail(size_, "the file ends within its header of 24 octets");
    throw std::runtime_error(error_);
  }
  if (load16(data_ + 4) != 2) {
    fail(4, "found version " + std::to_string(load16(data_ + 4)) + "; 2 is read");
    throw std::runtime_error(error_);
  }
  const uint32_t network = load32(data_ + 20);
  Interface i;
  i.number = 1;
  linkIs(i, static_cast<uint16_t>(network));
  // The upper bits: whether frames end with their check sequence, and with how many 16-bit words.
  if (network & 0x04000000) i.fcsLen = (network >> 28) * 2;
  interfaces_.push_back(std::move(i));
  only_ = &interfaces_.front();
  capLenMax_ = std::clamp(load32(data_ + 16), capLenUsual, lengthMax);
  pos_ = pcapHeaderLen;
  if (only_->readable) fastEnd_ = len_;
}

void CaptureFile::linkIs(Interface& i, uint16_t linkType) {
  i.linkType = linkType;
  i.readable = true;
  switch (linkType) {
    case 1:
      i.link = LinkLayer::ethernet;
      break;
    case 12:  // what 101 was on most systems before it was registered,
    case 14:  // and on one more
    case 101:
    case 228:
    case 229:
      i.link = LinkLayer::raw;
      break;
    case 113:
      i.link = LinkLayer::linuxSll;
      break;
    case 276:
      i.link = LinkLayer::linuxSll2;
      break;
    default:
      i.readable = false;
      break;
  }
}

bool CaptureFile::nextAny(Packet& p) {
  if (ended_) return false;
  return pcapng_ ? nextBlock(p) : nextRecord(p);
}

bool CaptureFile::nextRecord(Packet& p) {
  for (;;) {
    if (left() == 0) return end();
    if (left() < recordHeaderLen) return cut();
    if (!have(recordHeaderLen)) return false;
    const uint32_t captured = load32(data_ + pos_ + 8);
    if (captured > capLenMax_)
      return fail(pos_ + 8, "found a packet of " + std::to_string(captured) +
                                " captured octets; at most " + std::to_string(capLenMax_) +
                                " can be right");
    if (left() - recordHeaderLen < captured) return cut();
    if (!have(recordHeaderLen + captured)) return false;
    const uint8_t* r = data_ + pos_;
    pos_ += recordHeaderLen + captured;
    if (!only_->readable) {
      ++only_->skipped;
      continue;
    }
    packetIs(p, *only_, r + recordHeaderLen, captured, load32(r + 12));
    p.timeNs = static_cast<int64_t>(uint64_t{load32(r)} * 1'000'000'000 +
                                    uint64_t{load32(r + 4)} * fractionNs_);
    return true;
  }
}

/// Has the whole next block in memory. False: there is none, or its length is wrong.
bool CaptureFile::haveBlock(uint32_t& type, uint32_t& len) {
  if (left() == 0) return end();
  if (left() < 12) return cut();
  if (!have(12)) return false;
  type = load32(data_ + pos_);
  if (type == sectionHeader && !byteOrderIs()) return false;
  len = load32(data_ + pos_ + 4);
  if (len < blockLenMin(type) || len > lengthMax || len % 4 != 0)
    return fail(pos_ + 4, "found a block of " + std::to_string(len) + " octets; a multiple of 4 " +
                              "from " + std::to_string(blockLenMin(type)) + " to " +
                              std::to_string(lengthMax) + " is right");
  if (left() < len) return cut();
  if (!have(len)) return false;
  if (const uint32_t again = load32(data_ + pos_ + len - 4); again != len)
    return fail(pos_ + len - 4, "found block length " + std::to_string(again) + "; " +
                                    std::to_string(len) + ", as at its start, is right");
  return true;
}

bool CaptureFile::nextBlock(Packet& p) {
  for (uint32_t type = 0, len = 0;;) {
    if (!haveBlock(type, len)) return false;
    const uint8_t* b = data_ + pos_;
    size_t index = 0;
    bool hasTime = true;
    const uint8_t* octets = b + 28;
    uint32_t captured = 0;
    uint32_t wire = 0;
    switch (type) {
      case enhancedPacket:
      case obsoletePacket:
        index = type == enhancedPacket ? load32(b + 8) : load16(b + 8);
        captured = load32(b + 20);
        wire = load32(b + 24);
        if (captured > len - 32)
          return fail(pos_ + 20, "found a packet of " + std::to_string(captured) +
                                     " captured octets; its block has room for " +
                                     std::to_string(len - 32));
        break;
      case simplePacket:
        hasTime = false;
        octets = b + 12;
        wire = load32(b + 8);
        captured = std::min(wire, len - 16);
        break;
      case sectionHeader:
        if (!sectionIs()) return false;
        pos_ += len;
        continue;
      case interfaceDescription:
        if (!interfaceIs(len)) return false;
        pos_ += len;
        continue;
      default:
        pos_ += len;
        continue;
    }
    if (index >= interfaces_.size() - sectionBase_)
      return fail(pos_ + 8, "found a packet of interface " + std::to_string(index) +
                                "; its section describes " +
                                std::to_string(interfaces_.size() - sectionBase_) +
                                " before, counted from 0");
    Interface& i = interfaces_[sectionBase_ + index];
    if (hasTime) {
      lastNs_ = i.timeNs(uint64_t{load32(b + 12)} << 32 | load32(b + 16));
    } else if (i.snapLen > 0) {
      captured = std::min(captured, i.snapLen);
    }
    pos_ += len;
    if (!i.readable) {
      ++i.skipped;
      continue;
    }
    packetIs(p, i, octets, captured, wire);
    p.timeNs = lastNs_;
    return true;
  }
}

bool CaptureFile::byteOrderIs() {
  uint32_t magic = 0;
  std::memcpy(&magic, data_ + pos_ + 8, sizeof magic);
  if (magic != byteOrderMagic && magic != swapped(byteOrderMagic))
    return fail(pos_ + 8, "found byte-order magic " + hex(magic) +
                              "; 1a2b3c4d in either byte order is right");
  swap_ = magic != byteOrderMagic;
  return true;
}

bool CaptureFile::sectionIs() {
  // The section's own length is not used: a writer that was killed leaves it wrong.
  const uint16_t major = load16(data_ + pos_ + 12);
  if (major != 1) return fail(pos_ + 12, "found version " + std::to_string(major) + "; 1 is read");
  sectionBase_ = interfaces_.size();
  return true;
}

bool CaptureFile::interfaceIs(uint32_t blockLen) {
  if (interfaces_.size() == interfacesMax)
    return fail(pos_, "found one more interface after " + std::to_string(interfacesMax) +
                          ", which is the most that is read");
  const uint8_t* b = data_ + pos_;
  Interface i;
  i.number = static_cast<uint32_t>(interfaces_.size() + 1);
  linkIs(i, load16(b + 8));
  i.snapLen = load32(b + 12);
  size_t at = 16;
  const size_t end = blockLen - 4;
  while (end - at >= 4) {
    const uint16_t code = load16(b + at);
    const size_t len = load16(b + at + 2);
    if (code == endOfOptions) break;
    at += 4;
    const size_t padded = (len + 3) / 4 * 4;
    if (padded > end - at)
      return fail(pos_ + at - 2, "found an option of " + std::to_string(len) +
                                     " octets; its block has room for " + std::to_string(end - at));
    const uint8_t* value = b + at;
    at += padded;
    if (code == ifName) {
      const auto* text = reinterpret_cast<const char*>(value);
      i.name.assign(text, strnlen(text, len));
    } else if (code == ifFcsLen && len == 1) {
      // In octets as the usual writers have it, in bits as older documents had it.
      i.fcsLen = *value <= 8 ? *value : *value / 8;
    } else if (code == ifTsResol && len == 1) {
      const int exponent = *value & 0x7f;
      if (*value & 0x80) {
        i.shift = exponent;
      } else {
        i.multiplier = 1;
        i.divisor = 1;
        for (int n = exponent; n < 9; ++n) i.multiplier *= 10;
        // 10^19 is the last power that fits; at finer units all of 64 bits are below 1 ns anyway.
        for (int n = 9; n < std::min(exponent, 28); ++n) i.divisor *= 10;
        if (exponent > 28) i.multiplier = 0;
      }
    } else if (code == ifTsOffset && len == 8) {
      // In the section's byte order the halves swap, too.
      const uint64_t high = load32(value + (swap_ ? 0 : 4));
      const uint64_t low = load32(value + (swap_ ? 4 : 0));
      const auto seconds = static_cast<int64_t>(high << 32 | low);
      constexpr int64_t most = timeMax / 1'000'000'000;
      i.offsetNs = std::clamp(seconds, -most, most) * 1'000'000'000;
    }
  }
  interfaces_.push_back(std::move(i));
  return true;
}

int64_t CaptureFile::Interface::timeNs(uint64_t ticks) const {
  uint64_t ns = 0;
  if (shift >= 0) {
    const auto wide = static_cast<unsigned __int128>(ticks) * 1'000'000'000 >> shift;
    ns = wide > timeMax ? uint64_t{timeMax} : static_cast<uint64_t>(wide);
  } else if (__builtin_mul_overflow(ticks, multiplier, &ns)) {
    ns = timeMax;
  } else if (divisor != 1) {
    ns /= divisor;
  }
  ns = std::min(ns, uint64_t{timeMax});
  return std::clamp(static_cast<int64_t>(ns) + offsetNs, int64_t{0}, timeMax);
}

/// Makes `n` octets from `pos_` on, which the file has, lie behind each other in memory.
bool CaptureFile::read(size_t n) {
  if (goOn_ && !goOn_()) return end();
  const size_t rest = len_ - pos_;
  if (n > bufferLen_) {
    bufferLen_ = std::max(n, pieceLen);
    auto larger = std::make_unique_for_overwrite<uint8_t[]>(bufferLen_);
    if (rest > 0) std::memcpy(larger.get(), data_ + pos_, rest);
    buffer_ = std::move(larger);
  } else {
    std::memmove(buffer_.get(), data_ + pos_, rest);
  }
  data_ = buffer_.get();
  base_ += std::exchange(pos_, 0);
  len_ = rest;
  while (len_ < n) {
    const ssize_t got =
        ::pread(fd_.get(), buffer_.get() + len_, std::min(bufferLen_ - len_, size_ - base_ - len_),
                static_cast<off_t>(base_ + len_));
    if (got == 0)
      return fail(len_, "found the end of the file, which had " + std::to_string(size_) +
                            " octets when it was opened; nobody may truncate it meanwhile");
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fail(len_, std::string("cannot be read: ") + std::strerror(errno));
    len_ += static_cast<size_t>(got);
  }
  if (only_ && only_->readable) fastEnd_ = len_;
  return true;
}

bool CaptureFile::end() {
  ended_ = true;
  fastEnd_ = 0;
  return false;
}

bool CaptureFile::cut() {
  cut_ = name_ + ": octet " + std::to_string(position()) +
         ": the last packet is not whole: the capture is still being written, or was killed; all "
         "before it was read";
  return end();
}

bool CaptureFile::fail(size_t at, const std::string& problem) {
  error_ = name_ + ": octet " + std::to_string(base_ + at) + ": " + problem;
  return end();
}

std::string_view CaptureFile::interfaceName(uint32_t n) const {
  if (n == 0 || n > interfaces_.size()) return {};
  return interfaces_[n - 1].name;
}

uint64_t CaptureFile::skipped() const {
  uint64_t sum = 0;
  for (const Interface& i : interfaces_) sum += i.skipped;
  return sum;
}

std::vector<std::string> CaptureFile::warnings() const {
  std::vector<std::string> all;
  size_t more = 0;
  for (const Interface& i : interfaces_) {
    if (i.skipped == 0) continue;
    if (all.size() == warningsMax) {
      ++more;
      continue;
    }
    all.push_back(name_ + ": interface " + std::to_string(i.number) +
                  (i.name.empty() ? "" : " (" + printable(i.name) + ")") + ": skipped " +
                  std::to_string(i.skipped) + " packets of link type " +
                  std::to_string(i.linkType) +
                  "; read are 1 (Ethernet), 101, 228, 229 (IP), 113, 276 (Linux cooked)");
  }
  if (more > 0) all.push_back(name_ + ": so for " + std::to_string(more) + " more interfaces");
  if (!cut_.empty()) all.push_back(cut_);
  return all;
}

}  // namespace platform
