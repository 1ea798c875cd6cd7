// The shared table's contract, over both platforms.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <random>

#include "platform/linux/ShmTable.h"
#include "platform/sim/SimPlatform.h"
#include "tests/support/Random.h"

using namespace platform;

namespace {

using Octets = std::vector<std::byte>;

Octets octets(size_t len, uint64_t n) {
  Octets o(len);
  std::memcpy(o.data(), &n, std::min(len, sizeof n));
  if (len > 8) o.back() = std::byte(n * 7);
  return o;
}

class Table : public testing::TestWithParam<bool> {
 protected:
  static Ptr<SharedTable> table(size_t keyLen, size_t valueLen, size_t capacity) {
    if (!GetParam()) return simTableFactory(keyLen, valueLen, capacity);
    return shmTableFactory("/tt-unit-" + std::to_string(::getpid()), keyLen, valueLen, capacity);
  }
  static std::map<Octets, Octets> content(const SharedTable& t) {
    std::map<Octets, Octets> all;
    t.each([&](SharedTable::Octets k, SharedTable::Octets v) {
      EXPECT_TRUE(all.emplace(Octets(k.begin(), k.end()), Octets(v.begin(), v.end())).second);
    });
    return all;
  }
};

TEST_P(Table, AgreesWithAMapUnderRandomChanges) {
  struct Row {
    const char* name;
    size_t keyLen, valueLen, capacity;
    unsigned keys;  // that are drawn from
  };
  for (const Row& r : {Row{"one record", 1, 1, 1, 4}, Row{"odd lengths", 13, 21, 40, 60},
                       Row{"full most of the time", 300, 850, 64, 200},
                       Row{"ever new keys", 8, 8, 100, 1u << 30}}) {
    SCOPED_TRACE(r.name);
    auto t = table(r.keyLen, r.valueLen, r.capacity);
    std::map<Octets, Octets> oracle;
    const unsigned seed = support::fromEnvironment("TARN_SEED", std::random_device{}());
    SCOPED_TRACE("TARN_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    for (int step = 0; step < 20000; ++step) {
      Octets key = octets(r.keyLen, random() % r.keys);
      if (random() % 2 && !oracle.empty())  // one that is there
        key = std::next(oracle.begin(), static_cast<long>(random() % oracle.size()))->first;
      const Octets value = octets(r.valueLen, random());
      switch (random() % 5) {
        case 0:
        case 1:
        case 2: {
          const bool fits = oracle.contains(key) || oracle.size() < r.capacity;
          ASSERT_EQ(t->put(key, value), fits);
          if (fits) oracle[key] = value;
          break;
        }
        case 3:
          ASSERT_EQ(t->del(key), oracle.erase(key) == 1);
          break;
        case 4: {
          Octets got(r.valueLen);
          ASSERT_EQ(t->get(key, got), oracle.contains(key));
          ASSERT_TRUE(!oracle.contains(key) || got == oracle[key]);
          break;
        }
      }
      ASSERT_EQ(t->size(), oracle.size());
      ASSERT_TRUE(step % 997 != 0 || content(*t) == oracle);
      if (step % 4985 != 0) continue;
      t->delAll();
      oracle.clear();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(On, Table, testing::Bool(), [](const auto& info) {
  return std::string(info.param ? "linux" : "sim");
});

}  // namespace
