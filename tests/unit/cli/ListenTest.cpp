#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/unit/cli/Octets.h"
#include "tests/unit/cli/Process.h"

namespace cli {
namespace {

using decoder::message;
using decoder::Octets;
using decoder::put16;
using decoder::put32;
using decoder::rich;
using nlohmann::json;

/// Sends datagrams over loopback from one port.
class Sender {
 public:
  Sender(const char* host, uint16_t port) {
    addrinfo* to = nullptr;
    if (getaddrinfo(host, std::to_string(port).c_str(), nullptr, &to) != 0) return;
    fd_ = socket(to->ai_family, SOCK_DGRAM, 0);
    const int tos = 46 << 2;
    setsockopt(fd_, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
    setsockopt(fd_, IPPROTO_IPV6, IPV6_TCLASS, &tos, sizeof tos);
    ok_ = connect(fd_, to->ai_addr, to->ai_addrlen) == 0;
    freeaddrinfo(to);
  }
  ~Sender() { close(fd_); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  bool ok() const { return ok_; }
  void send(const Octets& o) const {
    ASSERT_EQ(::send(fd_, o.data(), o.size(), 0), static_cast<ssize_t>(o.size()));
  }

 private:
  int fd_ = -1;
  bool ok_ = false;
};

std::vector<std::string> listenOnAnyPort(std::vector<std::string> more) {
  std::vector<std::string> argv = {TARNFLOW, "listen", "--port", "0"};
  argv.insert(argv.end(), more.begin(), more.end());
  return argv;
}
uint16_t portOf(Process& listener) {
  const json first = json::parse(listener.line().value());
  EXPECT_EQ(first["type"], "listening");
  return first["sockets"][0]["port"];
}

class ListenTest : public testing::TestWithParam<const char*> {};

TEST_P(ListenTest, DecodesRealDatagrams) {
  Process listener(listenOnAnyPort({"--json", "--messages", "3"}));
  const uint16_t port = portOf(listener);
  ASSERT_NE(port, 0);
  const Sender sender(GetParam(), port);
  if (!sender.ok()) GTEST_SKIP() << "no loopback of this family";

  sender.send(rich);
  // One message is shown before the next is sent: output does not wait in a buffer.
  const json m = json::parse(listener.line().value());
  EXPECT_EQ(m["type"], "message");
  EXPECT_EQ(m["sourceAddress"], GetParam());
  EXPECT_EQ(m["destinationAddress"], GetParam());
  EXPECT_EQ(m["destinationPort"], port);
  EXPECT_EQ(m["tos"], 184);
  EXPECT_EQ(m["sets"][2]["records"][0]["sourceIPv4Address"], "10.0.0.1");

  sender.send(message(9, "0101 0008 00000000"));
  EXPECT_EQ(json::parse(listener.line().value())["sequenceState"], "ok");
  sender.send(message(12, "0101 0008 00000000"));
  const json gap = json::parse(listener.line().value());
  EXPECT_EQ(gap["sequenceState"], "missing");
  EXPECT_EQ(gap["sequenceExpected"], 10);
  const json summary = json::parse(listener.line().value());
  EXPECT_EQ(summary["type"], "summary");
  ASSERT_EQ(summary["streams"].size(), 1U);
  EXPECT_EQ(summary["streams"][0]["messages"], 3);
  EXPECT_EQ(summary["streams"][0]["records"], 6);
  EXPECT_EQ(summary["streams"][0]["missingRecords"], 2);
  EXPECT_EQ(listener.wait(), 1) << "a sequence error was seen";
}
INSTANTIATE_TEST_SUITE_P(Family, ListenTest, testing::Values("127.0.0.1", "::1"),
                         [](const auto& info) { return info.index == 0 ? "IPv4" : "IPv6"; });

TEST(Listen, EndsBySignalOrTimeWithASummary) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Process listener(listenOnAnyPort({"--json"}));
    const Sender sender("127.0.0.1", portOf(listener));
    sender.send(rich);
    ASSERT_TRUE(listener.line());
    listener.signal(signal);
    EXPECT_EQ(json::parse(listener.line().value())["type"], "summary");
    EXPECT_EQ(listener.wait(), 0);
  }
  Process timed(listenOnAnyPort({"--seconds", "0.1"}));
  EXPECT_EQ(timed.wait(), 0);
  EXPECT_NE(timed.rest().find("0 streams in 0.1 s"), std::string::npos) << timed.rest();
}

// What this host loses is not taken for the exporter's loss without a word.
TEST(Listen, TellsItsOwnDrops) {
  Process listener(listenOnAnyPort({"--json", "--quiet-data"}));
  const Sender sender("127.0.0.1", portOf(listener));
  sender.send(message(0, "0002 000c 0101 0001 0096 0004"));
  ASSERT_TRUE(listener.line());
  listener.signal(SIGSTOP);
  Octets big = message(0, "0101 fde8");  // 16249 records: 65000 octets
  big.resize(16 + 65000);
  put16(big, 2, big.size());
  constexpr uint32_t sent = 300;  // more than fits its buffer
  for (uint32_t i = 0; i < sent; ++i) {
    put32(big, 8, i * 16249);
    sender.send(big);
  }
  listener.signal(SIGCONT);
  uint64_t heard = 0;
  uint64_t dropped = 0;
  while (heard + dropped < sent) {
    const auto line = listener.line();
    ASSERT_TRUE(line) << heard << " heard, " << dropped << " dropped";
    const json j = json::parse(*line);
    heard += j["type"] == "message";
    if (j["type"] == "localDrops") dropped += j["datagrams"].get<uint64_t>();
  }
  EXPECT_GT(dropped, 0U);
  EXPECT_EQ(heard + dropped, sent);
  listener.signal(SIGINT);
  listener.wait();
  EXPECT_EQ(json::parse(listener.rest())["localDrops"], dropped);
}

TEST(Listen, SaysWhyItCannotListen) {
  Process first(listenOnAnyPort({"--json", "--address", "127.0.0.1"}));
  const uint16_t port = portOf(first);
  Process second({TARNFLOW, "listen", "--address", "127.0.0.1", "--port", std::to_string(port)});
  EXPECT_EQ(second.wait(), 2);
  EXPECT_EQ(second.errors(), "tarnflow listen: cannot listen on 127.0.0.1:" + std::to_string(port) +
                                 ": Address already in use\n");
  Process named(listenOnAnyPort({"--address", "localhost"}));
  EXPECT_EQ(named.wait(), 2);
  EXPECT_NE(named.errors().find("\"localhost\" is no numeric IPv4 or IPv6 address"),
            std::string::npos)
      << named.errors();
  for (const auto& wrong : {std::pair{"--port", "65536"}, {"--messages", "0"}, {"--seconds", "x"}})
    EXPECT_EQ(Process({TARNFLOW, "listen", wrong.first, wrong.second}).wait(), 2) << wrong.first;
}

}  // namespace
}  // namespace cli
