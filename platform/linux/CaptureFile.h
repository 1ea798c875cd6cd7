#pragma once
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/Fd.h"
#include "platform/linux/Packet.h"

namespace platform {

/// The packets of a capture file, pcap or pcapng, which is read piece by piece.
///
///   CaptureFile file(path);               // throws
///   Packet p;
///   while (file.next(p)) ...              // p.octets lives until the next call
///   if (!file.error().empty()) ...        // the file is damaged from there on
///   for (auto& w : file.warnings()) ...
///
/// Interfaces are numbered from 1 in the order of the file, over all its sections; a pcap file has
/// one. Times are kept between 0 and 2^62 - 1 ns, so that adding an interval overflows nothing. A
/// packet without a time (pcapng's simple packet) has that of the packet before it.
///
/// A file that others truncate meanwhile is damaged from there on. What is appended after opening
/// is not seen.
class CaptureFile {
 public:
  /// Throws ErrnoException when the file cannot be opened or read, std::runtime_error when it is
  /// no capture or no regular file. The text names the file, what is wrong and what would be right.
  explicit CaptureFile(const std::string& path);
  /// A capture in memory, which must outlive this.
  CaptureFile(std::string name, std::span<const uint8_t> octets);
  CaptureFile(const CaptureFile&) = delete;
  CaptureFile& operator=(const CaptureFile&) = delete;

  /// False at the end of what can be read.
  bool next(Packet& p);

  /// Called within `next` before each piece of some hundred KiB is read, packets or not; false ends
  /// the reading as the end of the file does.
  void goOnIs(std::function<bool()> goOn) { goOn_ = std::move(goOn); }
  size_t position() const { return base_ + pos_; }  ///< octets that were read
  size_t size() const { return size_; }             ///< as it was opened

  /// Why reading ended before the end of the file: name, octet offset, what was found there and
  /// what would be right. Empty: it did not.
  const std::string& error() const { return error_; }
  /// What the user should know, a line each: a last packet that is not whole (the capture is still
  /// being written, or was killed), packets of link layers that are not read.
  std::vector<std::string> warnings() const;

  size_t interfaces() const { return interfaces_.size(); }  ///< that have been seen so far
  /// As the file has it, any octets but no NUL; empty when it has none. `n` from 1.
  std::string_view interfaceName(uint32_t n) const;
  /// Packets not handed out because of their link layer.
  uint64_t skipped() const;

 private:
  struct Interface {
    std::string name;
    uint32_t number = 0;    // from 1
    uint16_t linkType = 0;  // as tcpdump.org registers them
    bool readable = false;  // it is one of `link`
    LinkLayer link = LinkLayer::ethernet;
    uint32_t snapLen = 0;
    uint32_t fcsLen = 0;
    uint64_t skipped = 0;
    // pcapng: ns = ticks * multiplier / divisor, or ticks * 10^9 / 2^shift; then the offset.
    uint64_t multiplier = 1000;
    uint64_t divisor = 1;
    int shift = -1;  // negative: the first
    int64_t offsetNs = 0;
    int64_t timeNs(uint64_t ticks) const;
  };

  uint32_t load32(const uint8_t* o) const {
    uint32_t v = 0;
    std::memcpy(&v, o, sizeof v);
    return swap_ ? __builtin_bswap32(v) : v;
  }
  uint16_t load16(const uint8_t* o) const {
    uint16_t v = 0;
    std::memcpy(&v, o, sizeof v);
    return swap_ ? __builtin_bswap16(v) : v;
  }
  static void linkIs(Interface& i, uint16_t linkType);
  void begin();
  void beginPcap();
  bool nextAny(Packet& p);
  bool nextRecord(Packet& p);
  bool haveBlock(uint32_t& type, uint32_t& len);
  bool nextBlock(Packet& p);
  void packetIs(Packet& p, const Interface& i, const uint8_t* octets, uint32_t captured,
                uint32_t wire) const;
  bool byteOrderIs();
  bool sectionIs();
  bool interfaceIs(uint32_t blockLen);
  size_t left() const { return size_ - base_ - pos_; }
  bool have(size_t n) { return n <= len_ - pos_ || read(n); }
  bool read(size_t n);
  bool end();
  bool cut();
  bool fail(size_t at, const std::string& problem);

  std::string name_;
  Fd fd_;  // none of a capture in memory
  std::function<bool()> goOn_;
  std::unique_ptr<uint8_t[]> buffer_;
  size_t bufferLen_ = 0;
  const uint8_t* data_ = nullptr;  // the piece of the file in memory
  size_t len_ = 0;                 // its octets
  size_t base_ = 0;                // where in the file it begins
  size_t pos_ = 0;                 // in the piece
  size_t size_ = 0;                // of the file
  size_t fastEnd_ = 0;             // pcap records that end here or before take the short way
  bool pcapng_ = false;
  bool swap_ = false;  // the file, or section, has the other byte order
  bool ended_ = false;
  uint32_t fractionNs_ = 1000;  // pcap: unit of the fraction of a second
  uint32_t capLenMax_ = 0;
  int64_t lastNs_ = 0;
  size_t sectionBase_ = 0;  // interfaces of the sections before
  std::vector<Interface> interfaces_;
  Interface* only_ = nullptr;  // pcap
  std::string error_;
  std::string cut_;
};

inline void CaptureFile::packetIs(Packet& p, const Interface& i, const uint8_t* octets,
                                  uint32_t captured, uint32_t wire) const {
  p.octets = octets;
  // Some writers leave the wire length 0; and the frame check sequence does not count.
  if (wire < captured) wire = captured;
  wire -= wire < i.fcsLen ? wire : i.fcsLen;
  p.wireLen = wire;
  p.capLen = captured < wire ? captured : wire;
  p.interface = i.number;
  p.link = i.link;
  p.hasVlan = false;
  p.vlanTci = 0;
}

inline bool CaptureFile::next(Packet& p) {
  constexpr size_t headerLen = 16;
  if (pos_ + headerLen <= fastEnd_) {
    const uint8_t* r = data_ + pos_;
    const uint32_t captured = load32(r + 8);
    if (captured <= capLenMax_ && pos_ + headerLen + captured <= fastEnd_) {
      packetIs(p, *only_, r + headerLen, captured, load32(r + 12));
      p.timeNs = static_cast<int64_t>(uint64_t{load32(r)} * 1'000'000'000 +
                                      uint64_t{load32(r + 4)} * fractionNs_);
      pos_ += headerLen + captured;
      return true;
    }
  }
  return nextAny(p);
}

}  // namespace platform
