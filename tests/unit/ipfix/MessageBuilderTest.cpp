#include "Ipfix/MessageBuilder.h"

#include <gtest/gtest.h>

#include <random>

#include "platform/sim/SimPlatform.h"
#include "tests/support/Random.h"

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
  MessageBuilderTest() { Platform::install(sim_.get()); }
  ~MessageBuilderTest() override { Platform::install(nullptr); }
  std::unique_ptr<SimPlatform> sim_ = simPlatform();
};

TEST_F(MessageBuilderTest, MisuseStopsTheProgram) {
  auto builder = messageBuilderFactory(100, 1);
  EXPECT_DEATH(builder->addSetRecordStr(256, "x"), "builder->pkt\\(\\)");
  EXPECT_DEATH(builder->finalizeMsg(), "pkt\\(\\)");
  builder->startMsg();
  EXPECT_DEATH(builder->startMsg(), "!pkt\\(\\).*MessageBuilder");
  EXPECT_DEATH(builder->finalizeMsg(), "offset\\(\\) > IpfixConst::messageHeaderLen\\(\\)");
  EXPECT_DEATH(builder->addSetRecordStr(256, std::string(65535, 'x')), "UINT16_MAX");
  const auto held = dataRecordFactory("x");
  const Ptr<const DataRecord> queued = held;  // whoever counts its octets
  EXPECT_DEATH(held->append(reinterpret_cast<const unsigned char*>("y"), 1), "refs\\(\\) == 1");
}

// Records of any length, empty ones and those at the limit among them, into messages of any size:
// each leaves once, in order, one by one as in bulk; what fits no message is named by its place.
TEST_F(MessageBuilderTest, PacksEachRecordOnceWhateverItsLength) {
  support::eachSeed(2000, [](unsigned seed) {
    std::mt19937 random(seed);
    const auto max = static_cast<uint16_t>(seed % 50 == 0 ? 65535 : 40 + random() % 400);
    const uint32_t room = max - 20u;
    const bool bulk = random() % 2 == 0;
    std::vector<Ptr<const DataRecord>> records(1 + random() % 60);
    std::string whole;
    bool misfit = false;
    for (auto& r : records) {
      const uint32_t lens[] = {1, 1 + static_cast<uint32_t>(random() % room), room};
      const uint32_t misfits[] = {0, room + 1, 65532, 65534};
      const bool fits = random() % 100 > 0;
      if (bulk && random() % 20 == 0) continue;  // a place whose record was removed
      r = dataRecordFactory(std::string(fits ? lens[random() % 3] : misfits[random() % 4],
                                        static_cast<char>(random())));
      misfit |= r->dataLen() == 0 || r->dataLen() > room;
      if (!misfit) whole += r->data();
    }
    const auto builder = messageBuilderFactory(max, 1);
    std::string sent;
    auto it = records.begin();
    for (bool more = true; more;) {
      builder->startMsg();
      uint64_t added = 0;
      if (bulk) {
        it = builder->addSetRecords(256, it, records.end(), added);
      } else {
        for (; it != records.end() && builder->addSetRecord(256, **it) > 0; ++it) ++added;
      }
      ASSERT_EQ(builder->recordCount(), added);
      more = added > 0;
      if (!more) break;
      const auto message = builder->finalizeMsg();
      const auto octets = message->pktHolder_p()->octets();
      ASSERT_LE(octets.size(), max);
      ASSERT_EQ(be(octets, 18, 2), octets.size() - 16);
      sent.append(octets.begin() + 20, octets.end());
    }
    ASSERT_EQ(it == records.end(), !misfit);
    ASSERT_EQ(sent, whole);
  });
}

TEST(DataRecordTest, AppendsBeyondItsBlock) {
  std::string all = "ab";
  const auto record = dataRecordFactory(all);
  for (unsigned n = 0; n < 40; ++n) {
    const std::string more(n, static_cast<char>('a' + n % 26));
    record->append(reinterpret_cast<const unsigned char*>(more.data()), n);
    all += more;
    if (n % 5 == 0) {  // its own octets, that lie in the block which is left
      record->append(reinterpret_cast<const unsigned char*>(record->data().data()), n);
      all += all.substr(0, n);
    }
    ASSERT_EQ(record->data(), all);
  }
  EXPECT_EQ(dataRecordFactory()->dataLen(), 0u);
}

}  // namespace
