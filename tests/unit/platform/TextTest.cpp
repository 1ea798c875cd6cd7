// Text forms: quoting, value literals, addresses; and the packet's bounds.
#include "platform/Text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>

#include "platform/Ip.h"
#include "platform/Log.h"
#include "platform/Pkt.h"
#include "platform/Values.h"
#include "tests/support/Random.h"

using namespace platform;

namespace {

TEST(Text, QuotedReadsBack) {
  const std::pair<std::string, std::string> rows[] = {
      {"", "''"},
      {"ft1", "'ft1'"},
      {"it's", "'it\\'s'"},
      {"a\\b", "'a\\\\b'"},
      {"1\n2\t3", "'1\\n2\\t3'"},
      {std::string("\0\x1b\x7f", 3), "'\\x00\\x1b\\x7f'"},
      {"caf\xc3\xa9", "'caf\xc3\xa9'"},
  };
  for (const auto& [plain, quoted] : rows) EXPECT_EQ(toQuoted(plain), quoted);
  support::eachSeed(2000, [](unsigned seed) {
    std::mt19937 random(seed);
    std::string s(random() % 20, ' ');
    for (char& c : s) c = static_cast<char>(random());
    EXPECT_EQ(fromQuoted(toQuoted(s)), s);
  });
  for (const char* bad : {"", "'", "x", "'x", "x'", "'a'b'", "'\\'", "'\\q'", "'\\x1'", "'\\xg0'",
                          "'\\x'", "\"x\"", " 'x'"})
    EXPECT_FALSE(fromQuoted(bad)) << bad;
}

TEST(Text, ValueLiteralsReadBackWhateverTheyHold) {
  const std::string inner = ValueWriter("Inner").attr("a", 1).attr("s", std::string("},{'")).str();
  EXPECT_EQ(inner, "Value('Inner', ** {'a': 1, 's': '},{\\''})");
  const std::string text =
      ValueWriter("Outer").attr("first", true).raw("inner", inner).attr("last", 2.5).str();
  bool first = false;
  double last = 0;
  EXPECT_TRUE(ValueReader("Outer", text).attr("last", last).attr("first", first).ok());
  EXPECT_TRUE(first);
  EXPECT_EQ(last, 2.5);
  EXPECT_TRUE(ValueReader("Empty", ValueWriter("Empty").str()).ok());

  int a = 5;
  std::string s = "kept";
  EXPECT_FALSE(ValueReader("Other", inner).attr("a", a).ok()) << "another type";
  EXPECT_FALSE(ValueReader("Inner", inner).attr("b", a).ok()) << "a missing attribute";
  EXPECT_FALSE(ValueReader("Inner", inner).attr("s", a).ok()) << "an attribute of another kind";
  EXPECT_EQ(a, 5);
  for (size_t len = 0; len < inner.size(); ++len)
    EXPECT_FALSE(ValueReader("Inner", inner.substr(0, len)).attr("a", a).attr("s", s).ok()) << len;
}

/// Any address has the C library's text, and any text is one exactly where it is one to that.
template <class Addr>
void agreesWithTheCLibrary(int family, const char* letters) {
  support::eachSeed(20000, [&](unsigned seed) {
    std::mt19937 random(seed);
    std::array<uint8_t, 16> octets{};
    for (auto& o : octets) o = random() % 3 ? 0 : static_cast<uint8_t>(random());
    char library[INET6_ADDRSTRLEN];
    ASSERT_TRUE(::inet_ntop(family, octets.data(), library, sizeof library));
    std::string text = library;
    const auto address = Addr::fromString(text);
    ASSERT_TRUE(address) << text;
    // It also writes addresses of the form ::w.x.y.z with dots, which RFC 5952 does not ask for.
    if (family == AF_INET || text.find('.') == text.npos || text.starts_with("::ffff:")) {
      EXPECT_EQ(address->stringValue(), text);
    }
    EXPECT_EQ(Addr::fromString(address->stringValue()), address);
    for (unsigned n = random() % 3 + 1; n > 0; --n) {
      const char letter = letters[random() % std::strlen(letters)];
      text.replace(random() % (text.size() + 1), random() % 2, 1, letter);
    }
    std::array<uint8_t, 16> kernel{};
    const bool valid = ::inet_pton(family, text.c_str(), kernel.data()) == 1;
    const auto bent = Addr::fromString(text);
    ASSERT_EQ(bent.has_value(), valid) << text;
    if (!valid) return;
    ASSERT_TRUE(::inet_ntop(family, kernel.data(), library, sizeof library));
    EXPECT_EQ(bent, Addr::fromString(library)) << text;
  });
}
TEST(Ip, AgreesWithTheCLibrary) {
  agreesWithTheCLibrary<IpAddr>(AF_INET, "..01259 -+xa/");
  agreesWithTheCLibrary<Ip6Addr>(AF_INET6, "::1.f0FG %[]/");
  EXPECT_EQ(IpAddr::fromString("192.0.2.77")->value(), 0xc000024du);
  // RFC 5952: the longest run of zeros, else the first, of two or more.
  for (const auto& [text, canonical] : {std::pair("2001:DB8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"),
                                        std::pair("2001:0:0:1:0:0:0:1", "2001:0:0:1::1"),
                                        std::pair("2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"),
                                        std::pair("64:ff9b::192.0.2.33", "64:ff9b::c000:221")})
    EXPECT_EQ(Ip6Addr::fromString(text)->stringValue(), canonical);
}

TEST(Ip, PortsAndFamilies) {
  EXPECT_EQ(IpAndPort::fromString("10.0.0.1:4739")->stringValue(), "10.0.0.1:4739");
  EXPECT_EQ(Ip6AndPort::fromString("[2001:DB8::1]:4739")->stringValue(), "[2001:db8::1]:4739");
  for (const char* bad :
       {"10.0.0.1", "10.0.0.1:", "10.0.0.1:65536", "10.0.0.1:-1", ":1", "", "[", "10.0.0.1:1:1",
        "::1:1", "[::1]", "[::1]1", "[::1:1", "::1]:1", "[]:1", "[::1]:", "[::1]:70000"})
    EXPECT_FALSE(IpAndPort::fromString(bad) || Ip6AndPort::fromString(bad)) << bad;
  EXPECT_LT(IpGenAddr::fromString("255.255.255.255"), IpGenAddr::fromString("::"));
  EXPECT_EQ(IpGenAddr::fromString(""), IpGenAddr());
  EXPECT_FALSE(IpGenAddr::fromString("eth0"));
  EXPECT_TRUE(Ip6Addr::fromString("febf::1")->isLinkLocal());
  EXPECT_FALSE(Ip6Addr::fromString("fec0::1")->isLinkLocal());
}

TEST(Pkt, GrowsAtBothEndsWithinItsBounds) {
  auto p = Pkt::ofSize(8);
  p->headRoomIs(4);
  p->dataTailInc(4);
  std::memcpy(p->at(0, 4), "tail", 4);
  p->dataHeadInc(4);
  std::memcpy(p->at(0, 4), "head", 4);
  p->dataTailInc(100);  // a larger block
  EXPECT_EQ(p->bytes(), 108u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p->data()), 8), "headtail");
  EXPECT_EQ(*p->at(107, 1), 0);
  p->dataTailDec(101);
  EXPECT_EQ(p->bytes(), 7u);
  EXPECT_DEATH(p->at(4, 4), "assertion failed");
  EXPECT_DEATH(p->at(UINT32_MAX, 2), "assertion failed");
  EXPECT_DEATH(p->dataTailDec(8), "assertion failed");
  EXPECT_DEATH(p->dataHeadInc(1), "ptrWithinRegion");
  EXPECT_DEATH(p->headRoomIs(0), "assertion failed");
}

}  // namespace
