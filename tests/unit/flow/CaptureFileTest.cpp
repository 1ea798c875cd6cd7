#include "platform/linux/CaptureFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <functional>
#include <limits>

#include "Frames.h"
#include "platform/UdpPam.h"
#include "tests/support/Net.h"

namespace agent::flow {
namespace {
using platform::CaptureFile;
using Bytes = std::vector<uint8_t>;

/// Writes either byte order.
struct Writer {
  bool big = false;
  Octets octets;
  Writer& u32(uint32_t v) { return big ? (octets.u32(v), *this) : u16(v).u16(v >> 16); }
  Writer& u16(uint32_t v) {
    big ? octets.u16(v & 0xffff) : octets.u8(v).u8(v >> 8);
    return *this;
  }
  Writer& u64(uint64_t v) {
    return big ? u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v))
               : u32(static_cast<uint32_t>(v)).u32(static_cast<uint32_t>(v >> 32));
  }
  Writer& add(const Bytes& o) { return octets.add(o), *this; }
  Writer& pad() { return octets.fill((4 - octets.size() % 4) % 4), *this; }
};

struct Pcap : Writer {
  explicit Pcap(bool bigEndian = false, uint32_t linkType = 1, uint32_t magic = 0xa1b2c3d4) {
    big = bigEndian;
    u32(magic).u16(2).u16(4).u32(0).u32(0).u32(65535).u32(linkType);
  }
  Pcap& packet(uint32_t s, uint32_t fraction, const Bytes& data, uint32_t wireLen = 0) {
    const auto len = static_cast<uint32_t>(data.size());
    u32(s).u32(fraction).u32(len).u32(wireLen ? wireLen : len).add(data);
    return *this;
  }
};

struct Pcapng : Writer {
  explicit Pcapng(bool bigEndian = false) { section(bigEndian); }
  Pcapng& block(uint32_t type, const std::function<void(Writer&)>& body) {
    Writer w{big, {}};
    body(w);
    w.pad();
    const auto len = static_cast<uint32_t>(w.octets.size() + 12);
    u32(type).u32(len).add(w.octets).u32(len);
    return *this;
  }
  Pcapng& section(bool bigEndian) {
    big = bigEndian;
    return block(0x0a0d0d0a, [](Writer& w) { w.u32(0x1a2b3c4d).u16(1).u16(0).u64(~uint64_t{0}); });
  }
  using Option = std::pair<uint16_t, Bytes>;  // code, value
  Pcapng& interface(uint16_t linkType, const std::vector<Option>& options = {},
                    uint32_t snapLen = 0) {
    return block(1, [&](Writer& w) {
      w.u16(linkType).u16(0).u32(snapLen);
      for (const auto& [code, value] : options)
        w.u16(code).u16(static_cast<uint32_t>(value.size())).add(value).pad();
      if (!options.empty()) w.u32(0);
    });
  }
  Pcapng& packet(uint32_t interface, uint64_t ticks, const Bytes& data, uint32_t wireLen = 0) {
    return block(6, [&](Writer& w) {
      const auto len = static_cast<uint32_t>(data.size());
      w.u32(interface).u32(static_cast<uint32_t>(ticks >> 32)).u32(static_cast<uint32_t>(ticks));
      w.u32(len).u32(wireLen ? wireLen : len).add(data);
    });
  }
  Octets i64(int64_t v) const {
    Writer w{big, {}};
    w.u64(static_cast<uint64_t>(v));
    return w.octets;
  }
};

const Octets frame = ethernet(0x0800, Ip4{}(17, udp(1000, 2000, 20)));  // 62 octets

/// All packets, a line each: interface, time in ns, captured and wire length, link layer.
std::string packetsOf(CaptureFile& file) {
  std::string all;
  Packet p;
  while (file.next(p)) {
    EXPECT_FALSE(p.hasVlan);
    const std::string link[] = {"ethernet", "raw", "sll", "sll2"};
    all += std::to_string(p.interface) + ' ' + std::to_string(p.timeNs) + ' ' +
           std::to_string(p.capLen) + '/' + std::to_string(p.wireLen) + ' ' +
           link[static_cast<size_t>(p.link)] + '\n';
  }
  return all;
}

void write(const std::string& path, const Bytes& octets) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(octets.data()),
             static_cast<std::streamsize>(octets.size()));
}

TEST(CaptureFile, Blocks) {
  for (const bool big : {false, true}) {
    Pcapng ng(big);
    ng.block(0xbad, [](Writer& w) { w.u32(7); });
    ng.interface(1, {{1, {'x'}}, {2, {'e', 't', 'h', '0', 0, 'x'}}, {13, {4}}}, 40);
    ng.interface(127, {{2, {'w', 0x1b, 'l'}}});
    ng.interface(101, {{9, {0x80 | 10}}, {14, ng.i64(-1)}});
    ng.packet(0, 1000001, frame);
    // A simple packet: no time, of the first interface, whose snap length cuts it.
    ng.block(3, [](Writer& w) { w.u32(62).add(frame); });
    ng.packet(1, 2000000, frame).packet(1, 3000000, frame);
    ng.block(2, [](Writer& w) {
      w.u16(2).u16(9).u32(0).u32(2048 + 512).u32(48).u32(1500);
      w.add(Bytes(frame.begin() + 14, frame.end()));
    });
    // Another section, in the other byte order, counts its interfaces anew.
    ng.section(!big).interface(113, {{2, {'e', '1'}}}).packet(0, 4000000, frame, 100);
    ng.block(4, [](Writer& w) { w.u32(0); });

    CaptureFile file("x", ng.octets);
    EXPECT_EQ(packetsOf(file),
              "1 1000001000 58/58 ethernet\n"
              "1 1000001000 40/58 ethernet\n"
              "3 1500000000 48/1500 raw\n"
              "4 4000000000 62/100 sll\n");
    EXPECT_EQ(file.error(), "");
    EXPECT_EQ(file.skipped(), 2u);
    EXPECT_THAT(file.warnings(),
                testing::ElementsAre(testing::StartsWith(
                    "x: interface 2 (w\\x1bl): skipped 2 packets of link type 127; read are")));
    EXPECT_EQ(file.interfaces(), 4u);
    const char* const names[] = {"eth0", "w\x1bl", "", "e1", ""};
    for (uint32_t i = 1; i <= 5; ++i) EXPECT_EQ(file.interfaceName(i), names[i - 1]);
  }
}

TEST(CaptureFile, Times) {
  const int64_t most = (int64_t{1} << 62) - 1;
  constexpr auto limit = std::numeric_limits<int64_t>();
  struct Case {
    uint8_t resolution;
    int64_t offset;
    uint64_t ticks;
    int64_t expected;
  };
  const Case cases[] = {
      {3, 0, 1700000000001, 1700000000001000000},
      {12, 1700000000, 123456789123999, 1700000123456789123},
      {127, 5, ~uint64_t{0}, 5000000000},
      {0x80 | 30, 0, (uint64_t{5} << 30) + (1 << 29), 5500000000},
      {0xff, 0, ~uint64_t{0}, 0},
      {6, -10, 1000000, 0},
      {6, 0, ~uint64_t{0}, most},
      {0x81, 0, ~uint64_t{0}, most},
      {6, limit.max(), 1000000, most},
      {6, limit.min(), 1000000, 0},
  };
  for (const Case& c : cases) {
    Pcapng ng;
    ng.interface(1, {{9, {c.resolution}}, {14, ng.i64(c.offset)}}).packet(0, c.ticks, frame);
    CaptureFile file("x", ng.octets);
    Packet p;
    ASSERT_TRUE(file.next(p));
    EXPECT_EQ(p.timeNs, c.expected) << int{c.resolution} << " offset " << c.offset;
  }
}

TEST(CaptureFile, PcapHeader) {
  struct Case {
    Pcap pcap;
    std::string packets;
  };
  for (Case& c : std::array{
           Case{Pcap(true), "1 5000006000 62/100 ethernet\n1 1000000000 3/3 ethernet\n"},
           Case{Pcap(true, 101, 0xa1b23c4d), "1 5000000006 62/100 raw\n1 1000000000 3/3 raw\n"},
           // Two words of frame check sequence, four octets.
           Case{Pcap(false, 0x24000001),
                "1 5000006000 62/96 ethernet\n1 1000000000 0/0 ethernet\n"},
           Case{Pcap(true, 276), "1 5000006000 62/100 sll2\n1 1000000000 3/3 sll2\n"},
           Case{Pcap(false, 127), ""}}) {
    c.pcap.packet(5, 6, frame, 100).packet(1, 0, {1, 2, 3}, 1);  // a wire length that is wrong
    CaptureFile file("x", c.pcap.octets);
    EXPECT_EQ(packetsOf(file), c.packets);
  }
}

TEST(CaptureFile, Damage) {
  Pcap pcap;
  pcap.packet(1, 2, frame);     // at 24
  pcap.packet(3, 4, frame);     // at 102
  Pcapng ng;                    // 28 octets
  ng.interface(1);              // 20, at 28
  ng.packet(0, 1, frame);       // 96, at 48
  ng.packet(0, 2, frame);       // at 144
  ng.interface(1, {{9, {6}}});  // at 240
  ng.section(false);            // at 272
  struct Case {
    const Octets& octets;
    size_t at;
    uint32_t word;  // what is written there
    size_t packets;
    const char* error;
  };
  const Case cases[] = {
      {pcap.octets, 110, 262145, 1, "110: found a packet of 262145 captured octets; at most"},
      {ng.octets, 148, 28, 1, "148: found a block of 28 octets; a multiple of 4 from 32 to"},
      {ng.octets, 148, 97, 1, "148: found a block of 97 octets"},
      {ng.octets, 148, 0x1000004, 1, "148: found a block of 16777220 octets"},
      {ng.octets, 236, 92, 1, "236: found block length 92; 96, as at its start, is right"},
      {ng.octets, 152, 1, 1, "152: found a packet of interface 1; its section describes 1"},
      {ng.octets, 164, 65, 1, "164: found a packet of 65 captured octets; its block has room"},
      {ng.octets, 256, 9 | 9 << 16, 2, "258: found an option of 9 octets; its block has room"},
      {ng.octets, 280, 0x1a2b3c4e, 2, "280: found byte-order magic 1a2b3c4e; 1a2b3c4d"},
      {ng.octets, 284, 2, 2, "284: found version 2; 1 is read"}};
  for (const Case& c : cases) {
    Octets octets = c.octets;
    std::memcpy(&octets.at(c.at), &c.word, 4);
    CaptureFile file("x", octets);
    Packet p;
    size_t packets = 0;
    while (file.next(p)) ++packets;
    EXPECT_EQ(packets, c.packets) << c.error;
    EXPECT_TRUE(file.error().starts_with("x: octet " + std::string(c.error))) << file.error();
    EXPECT_FALSE(file.next(p));
  }
}

/// A capture that was killed: whatever is whole is read, the rest is no error.
TEST(CaptureFile, CutAtEachOctet) {
  Pcap pcap;
  pcap.packet(1, 2, frame).packet(3, 4, frame);
  Pcapng ng;
  ng.interface(1).packet(0, 1, frame).packet(0, 2, frame);
  struct Case {
    Octets octets;
    size_t least;                 // what a capture begins with
    std::vector<size_t> borders;  // where it could have ended, the last two behind its packets
  };
  for (const Case& c :
       {Case{pcap.octets, 24, {24, 102, 180}}, Case{ng.octets, 4, {28, 48, 144, 240}}})
    for (size_t len = 0; len <= c.octets.size(); ++len) {
      SCOPED_TRACE(len);
      const Bytes part(c.octets.begin(), c.octets.begin() + static_cast<ptrdiff_t>(len));
      if (len < c.least) {
        EXPECT_THROW(CaptureFile("x", part), std::runtime_error);
        continue;
      }
      CaptureFile file("x", part);
      Packet p;
      for (const size_t back : {2, 1}) EXPECT_EQ(file.next(p), *(c.borders.end() - back) <= len);
      EXPECT_FALSE(file.next(p));
      EXPECT_EQ(file.error(), "");
      EXPECT_EQ(file.warnings().empty(), std::ranges::count(c.borders, len) > 0);
    }
}

TEST(CaptureFile, RefusesWhatIsNoCapture) {
  const support::TempDir dir;
  const auto file = [&](const char* name, const Bytes& octets) {
    write(dir.path() + '/' + name, octets);
    return dir.path() + '/' + name;
  };
  const std::pair<std::string, const char*> cases[] = {
      {"-", "-: the standard input is not read; give the name of a regular file"},
      {dir.path(), ": is a directory; give the name of a regular file"},
      {"/dev/zero", "/dev/zero: is a device; give"},
      {dir.path() + "/none", "/none: cannot be opened: No such file"},
      {file("empty", {}), "/empty: octet 0: found an empty file; a capture begins with 0a0d0d0a"},
      {file("gz", {0x1f, 0x8b, 8, 0}), "found 1f8b0800 (gzip: decompress it first); a capture"},
      {file("short", {0xd4, 0xc3, 0xb2, 0xa1, 2, 0}), "octet 6: the file ends within its header"}};
  for (const auto& [path, says] : cases) {
    try {
      const CaptureFile refused(path);
      ADD_FAILURE() << path;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(says), std::string::npos) << e.what();
    }
  }
}

TEST(CaptureFile, ManyPiecesAndOneThatIsGone) {
  // 100 MB in packets across the borders of the pieces, and one that is longer than a piece.
  const support::TempDir dir;
  const std::string path = dir.path() + "/x";
  constexpr uint32_t packets = 1000;
  const auto lenOf = [](uint32_t i) { return i == 500 ? 262144 : 99994 + i % 7; };
  for (const bool ng : {false, true}) {
    Pcapng blocks;
    blocks.interface(1);
    Pcap records;
    for (uint32_t i = 0; i < packets; ++i) {
      const Octets data = Octets{}.u32(i).fill(lenOf(i) - 4);
      ng ? void(blocks.packet(0, i, data)) : void(records.packet(0, i, data));
    }
    write(path, ng ? blocks.octets : records.octets);
    const auto read = [&](CaptureFile& file, uint32_t from) {  // until where it is right
      Packet p;
      for (uint32_t i = from;; ++i)
        if (!file.next(p) || (p.octets[2] << 8 | p.octets[3]) != static_cast<int>(i) ||
            p.capLen != lenOf(i) || p.octets[p.capLen - 1] != 0)
          return i;
    };
    CaptureFile whole(path), shrinks(path);
    EXPECT_EQ(read(whole, 0), packets);
    EXPECT_EQ(whole.error(), "");

    Packet p;
    EXPECT_TRUE(shrinks.next(p));
    ASSERT_EQ(::truncate(path.c_str(), 100), 0);
    EXPECT_LT(read(shrinks, 1), 20u);
    EXPECT_NE(shrinks.error().find("found the end of the file"), std::string::npos)
        << shrinks.error();
  }
}

}  // namespace
}  // namespace agent::flow
