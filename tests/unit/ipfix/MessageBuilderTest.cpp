#include "Ipfix/MessageBuilder.h"

#include <gtest/gtest.h>

#include <random>

#include "platform/sim/SimPlatform.h"

using namespace platform;
using namespace FlowTracking;

namespace {

uint32_t be(std::span<const uint8_t> o, size_t at, size_t n) {
  uint32_t v = 0;
  for (size_t i = 0; i < n; ++i) v = v << 8 | o[at + i];
  return v;
}

class MessageBuilderTest : public testing::Test {
 protected:
  MessageBuilderTest() {
    Platform::install(sim_.get());
    sim_->wallClockIs(1700000000.75);
  }
  ~MessageBuilderTest() override { Platform::install(nullptr); }
  std::unique_ptr<SimPlatform> sim_ = simPlatform();
};
using MessageBuilderDeathTest = MessageBuilderTest;

TEST_F(MessageBuilderTest, LaysOutAMessageToTheOctet) {
  auto builder = messageBuilderFactory(200, 0x01020304);
  EXPECT_EQ(builder->setId(), 65535);
  builder->startMsg();
  for (const TemplateId id : {256, 256, 257, 256})
    EXPECT_EQ(builder->addSetRecordStr(id, std::string("\x11\x22\x33", 3)), 3u);
  const auto message = builder->finalizeMsg();
  const std::vector<uint8_t> expected{
      0, 10, 0, 40, 0,    0,    0,    0,    0,    0,    0, 0, 1, 2,  // header
      3, 4,                                                          //
      1, 0,  0, 10, 0x11, 0x22, 0x33, 0x11, 0x22, 0x33,              // 256, twice
      1, 1,  0, 7,  0x11, 0x22, 0x33,                                // 257
      1, 0,  0, 7,  0x11, 0x22, 0x33};                               // 256 again
  const auto octets = message->pktHolder_p()->octets();
  EXPECT_EQ(std::vector<uint8_t>(octets.begin(), octets.end()), expected);
  EXPECT_EQ(message->recordCount(), 4u);
  EXPECT_EQ(message->len(), 40u);
  EXPECT_FALSE(builder->pkt());
  EXPECT_FALSE(builder->msgHdr());
  EXPECT_EQ(builder->offset(), 0u);
  EXPECT_EQ(builder->recordCount(), 0u);
  EXPECT_EQ(builder->setId(), 256);

  const auto pkt = message->pkt(0xfffffffe);
  EXPECT_EQ(be(pkt->octets(), 4, 4), 1700000000u);
  EXPECT_EQ(be(pkt->octets(), 8, 4), 0xfffffffeu);
  sim_->wallClockIs(1700000011.2);
  EXPECT_EQ(be(message->pkt(7)->octets(), 4, 4), 1700000011u);
  EXPECT_EQ(be(pkt->octets(), 8, 4), 7u);  // one packet, stamped anew
}

// Whatever is added: messages stay within the limit, and reading them back gives what went in.
TEST_F(MessageBuilderTest, RandomRecordsComeBackInOrder) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rnd(seed);
  for (int round = 0; round < 200; ++round) {
    const auto maxSize = static_cast<uint16_t>(60 + rnd() % 1500);
    auto builder = messageBuilderFactory(maxSize, rnd());
    std::vector<std::pair<TemplateId, std::string>> in;
    std::vector<Ptr<Message>> messages;
    builder->startMsg();
    for (int i = 0; i < 60; ++i) {
      const auto id = static_cast<TemplateId>(256 + rnd() % 3);
      const std::string octets(1 + rnd() % 40, static_cast<char>(rnd()));
      const auto record = dataRecordFactory(octets);
      if (builder->addSetRecord(id, *record) == 0) {
        messages.push_back(builder->finalizeMsg());
        builder->startMsg();
        ASSERT_EQ(builder->addSetRecord(id, *record), octets.size());
      }
      in.emplace_back(id, octets);
    }
    messages.push_back(builder->finalizeMsg());

    size_t next = 0;
    for (const auto& m : messages) {
      const auto o = m->pktHolder_p()->octets();
      ASSERT_LE(o.size(), maxSize);
      ASSERT_EQ(be(o, 2, 2), o.size());
      ASSERT_EQ(be(o, 12, 4), builder->observationDomainId());
      size_t records = 0;
      for (size_t at = 16; at < o.size();) {
        const size_t end = at + be(o, at + 2, 2);
        ASSERT_LE(end, o.size());
        const auto id = static_cast<TemplateId>(be(o, at, 2));
        at += 4;
        ASSERT_LT(at, end) << "empty set";
        for (; at < end; ++records, ++next) {
          ASSERT_LT(next, in.size());
          ASSERT_EQ(id, in[next].first);
          const std::string& octets = in[next].second;
          ASSERT_EQ(std::string(o.begin() + static_cast<ptrdiff_t>(at),
                                o.begin() + static_cast<ptrdiff_t>(at + octets.size())),
                    octets);
          at += octets.size();
        }
        ASSERT_EQ(at, end);
      }
      ASSERT_EQ(records, m->recordCount());
    }
    ASSERT_EQ(next, in.size());
  }
}

TEST_F(MessageBuilderDeathTest, MisuseStopsTheProgram) {
  auto builder = messageBuilderFactory(100, 1);
  EXPECT_DEATH(builder->addSetRecordStr(256, "x"), "builder->pkt\\(\\)");
  EXPECT_DEATH(builder->finalizeMsg(), "pkt\\(\\)");
  builder->startMsg();
  EXPECT_DEATH(builder->startMsg(), "!pkt\\(\\).*MessageBuilder");
  EXPECT_DEATH(builder->finalizeMsg(), "offset\\(\\) > IpfixConst::messageHeaderLen\\(\\)");
  EXPECT_DEATH(builder->addSetRecordStr(256, std::string(65535, 'x')), "UINT16_MAX");
  // With its set header the length wraps: what then passes the limit does not fit the packet.
  EXPECT_DEATH(builder->addSetRecordStr(256, std::string(65534, 'x')),
               "builder->offset\\(\\) \\+ bytes <= builder->pktBufSize\\(\\)");
  EXPECT_EQ(builder->addSetRecordStr(256, std::string(65531, 'x')), 0u);
}

TEST(FieldSpecifierTest, EnterpriseBitFollowsTheFlag) {
  auto pkt = Pkt::ofSize(12);
  pkt->dataWholeIs();
  FieldSpecifier plain(pkt, 0, false);
  plain.elementIdIs(0x8052);
  plain.fieldLenIs(65535);
  FieldSpecifier enterprise(pkt, 4, true);
  enterprise.elementIdIs(1001);
  enterprise.fieldLenIs(2);
  enterprise.entNumIs(99991);
  const std::vector<uint8_t> expected{0x00, 0x52, 0xff, 0xff, 0x83, 0xe9,
                                      0x00, 0x02, 0x00, 0x01, 0x86, 0x97};
  EXPECT_EQ(std::vector<uint8_t>(pkt->octets().begin(), pkt->octets().end()), expected);
  EXPECT_DEATH(plain.entNumIs(1), "enterprise_");
  EXPECT_DEATH(SetHeader(pkt, 10).lengthIs(4), "offset <= len_");
}

TEST(DataRecordTest, AppendsBeyondItsBlock) {
  std::string all;
  const auto record = dataRecordFactory("ab");
  all = "ab";
  for (unsigned n = 0; n < 40; ++n) {
    const std::string more(n, static_cast<char>('a' + n % 26));
    record->append(reinterpret_cast<const unsigned char*>(more.data()), n);
    all += more;
    ASSERT_EQ(record->data(), all);
    ASSERT_EQ(record->dataLen(), all.size());
  }
  EXPECT_EQ(dataRecordFactory()->dataLen(), 0u);
}

}  // namespace
