// The table in shared memory as a reader in another process meets it: writers that come, go and
// die, segments that are not ours, and the documented layout.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "platform/UdpPam.h"
#include "platform/linux/Fd.h"
#include "platform/linux/ShmMapping.h"
#include "platform/linux/ShmTable.h"
#include "platform/sim/SimPlatform.h"
#include "tests/support/Net.h"
#include "tests/support/Random.h"
#include "tests/unit/platform/Sinks.h"

using namespace platform;
using State = ShmTableReader::Snapshot::State;
using Octets = std::vector<std::byte>;

namespace {

constexpr size_t keyLen = 20;
constexpr size_t valueLen = 50;
constexpr size_t capacity = 100;
// What the layout makes of these: a slot has 16 + 24 + 56 octets, to a multiple of 64.
constexpr size_t slots = 256;
constexpr size_t slotLen = 128;
constexpr size_t firstSlot = 256;

uint64_t u64(const std::string& content, size_t at) {
  uint64_t v;
  std::memcpy(&v, content.data() + at, sizeof v);
  return v;
}
Octets octets(size_t len, uint64_t n) {
  Octets o(len);
  for (size_t i = 0; i < len; ++i) o[i] = std::byte(n >> (i % 8 * 8) & 255);
  return o;
}
Octets key(uint64_t n) { return octets(keyLen, n); }
Octets value(uint64_t n) { return octets(valueLen, ~n); }

// The table's contract, over both platforms.
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
    const unsigned seed = support::firstSeed();
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

class ShmTable : public testing::Test {
 protected:
  ~ShmTable() override {
    for (const char* suffix : {"", ".lock", ".new"}) std::filesystem::remove(path + suffix);
  }
  Ptr<SharedTable> writer() { return shmTableFactory(name, keyLen, valueLen, capacity); }
  std::unique_ptr<ShmTableReader> reader() { return shmTableReader(name, keyLen, valueLen); }
  int writerError() {
    return errorOf([this] { writer(); });
  }
  /// A process that does what `body` says, tells its result and then waits to be killed.
  struct Child {
    explicit Child(const std::function<std::string()>& body) {
      int out[2];
      EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
      pid = ::fork();
      if (pid == 0) {
        std::string says;
        try {
          says = body();
        } catch (const std::exception& e) {
          says = e.what();
        }
        if (::write(out[1], says.data(), says.size()) > 0)
          for (;;) ::pause();
        ::_exit(1);
      }
      ::close(out[1]);
      said.resize(500);
      said.resize(static_cast<size_t>(std::max<ssize_t>(::read(out[0], said.data(), 500), 0)));
      ::close(out[0]);
    }
    ~Child() {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    pid_t pid;
    std::string said;
  };
  std::string fileContent() const {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  const std::string name = "/tt-shm-" + std::to_string(::getpid());
  const std::string path = "/dev/shm" + name;
};

TEST_F(ShmTable, WriterSparesWhatIsNotOurs) {
  std::ofstream(path) << "somebody's";
  EXPECT_EQ(writerError(), EEXIST);
  EXPECT_EQ(fileContent(), "somebody's");
  EXPECT_FALSE(std::filesystem::exists(path + ".lock")) << "a refusal leaves nothing behind";
  std::filesystem::remove(path);

  auto t = writer();
  std::filesystem::remove(path);
  std::ofstream(path) << "somebody's";
  t = nullptr;
  EXPECT_EQ(fileContent(), "somebody's") << "closing unlinks its own only";
  std::filesystem::remove(path);

  std::ofstream(path + ".new") << "another's, under the lock's name";
  std::filesystem::create_hard_link(path + ".new", path + ".lock");
  EXPECT_EQ(writerError(), EACCES);
  std::filesystem::remove(path + ".lock");
  std::filesystem::create_symlink(path + ".new", path + ".lock");
  EXPECT_EQ(writerError(), ELOOP);
  EXPECT_GT(std::filesystem::file_size(path + ".new"), 0u);
  std::filesystem::remove(path + ".lock");

  for (const char* bad : {"", "/", "x", "/a/b", "/..", "//"})
    EXPECT_THROW(shmTableFactory(bad, 1, 1, 1), ErrnoException) << bad;
  for (const size_t bad : {size_t{0}, size_t{1} << 40, SIZE_MAX})
    EXPECT_THROW(shmTableFactory(name, bad, 1, bad), ErrnoException) << bad;
}

// Root removes, truncates or replaces the files of a living writer: it lives on, and so do readers.
TEST_F(ShmTable, IsMadeAgainWhateverBecomesOfItsFiles) {
  std::string dead;
  {
    const Child other([this] {
      static const auto t = writer();
      return "made";
    });
    dead = fileContent();
  }
  struct Case {
    std::function<void()> damage;
    const char* says;
    State meanwhile;
    size_t kept;
  };
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  const auto unlink = [&] { ::unlink(path.c_str()); };
  const auto replace = [&] {
    unlink();
    std::ofstream(path, std::ios::binary) << dead;
  };
  for (const Case& c : std::vector<Case>{
           {[] {}, "", State::live, 2},
           {unlink, " was removed", State::absent, 2},
           {[&] { std::filesystem::resize_file(path, 0); }, " was truncated", State::foreign, 0},
           {replace, " was replaced", State::dead, 2},
           {[&] { std::filesystem::remove(path + ".lock"); }, ".lock was removed", State::live, 2},
       }) {
    SCOPED_TRACE(c.says);
    auto t = writer();
    auto r = reader();
    t->put(key(1), value(1));
    EXPECT_EQ(r->snapshot().records.size(), 1u);
    c.damage();
    t->put(key(2), value(2));
    EXPECT_EQ(r->snapshot().state, c.meanwhile);
    const std::string said = shmTableRestore(*t);
    EXPECT_TRUE(said.ends_with(c.says) && said.empty() == (*c.says == 0)) << said;
    EXPECT_EQ(r->snapshot().records.size(), c.kept);
    EXPECT_EQ(t->size(), c.kept);
    for (uint64_t i = 0; i < capacity; ++i) EXPECT_TRUE(t->put(key(i), value(i)));
    const auto s = r->snapshot();
    EXPECT_EQ(s.state, State::live);
    EXPECT_NEAR(s.startTime, now.count(), 60);
    EXPECT_EQ(s.records.size(), capacity);
    EXPECT_EQ(writerError(), EBUSY);
    t = nullptr;
    Octets got;
    EXPECT_TRUE(r->snapshot().state == State::absent && !r->get(key(1), got));
    EXPECT_FALSE(std::filesystem::exists(path) || std::filesystem::exists(path + ".lock"));
  }
  // In the middle of a call.
  auto t = writer();
  const Fd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  shm::Mapping map(fd.get(), firstSlot + slots * slotLen, false);
  EXPECT_NE(map.base()[0], 0);
  EXPECT_EQ(::ftruncate(fd.get(), 0), 0);
  EXPECT_EQ(map.base()[firstSlot], 0);
  EXPECT_TRUE(map.lost());
}

// In a directory that everybody may write, others' files stay, and whose they are is said.
TEST_F(ShmTable, AnotherUsersFilesAreInTheWayOrAreNot) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to be somebody else";
  const support::TempDir own;
  std::filesystem::permissions(own.path(), std::filesystem::perms::all);
  const auto asAnother = [&](const std::string& lockDir) {
    const Child other([&]() -> std::string {
      if (::setresuid(12345, 12345, 12345) != 0) return "still root";
      shmTableFactory(name, keyLen, valueLen, capacity, lockDir);
      return "made";
    });
    return other.said;
  };
  std::ofstream(path + ".new") << "in the way of nobody";
  std::ofstream(path + ".lock") << "";
  EXPECT_THAT(asAnother("/dev/shm"), testing::HasSubstr(path + ".lock: owned by user 0; remove"));
  EXPECT_EQ(asAnother(own.path()), "made");
  std::ofstream(path) << "squatting";
  EXPECT_THAT(asAnother(own.path()),
              testing::HasSubstr(": no table of ours, owned by user 0; rem"));
  std::filesystem::remove(path);
  // A lock elsewhere does not let two write one name.
  auto t = writer();
  EXPECT_THAT(asAnother(own.path()),
              testing::HasSubstr("in use by process " + std::to_string(::getpid())));
}

TEST_F(ShmTable, AReaderInAnotherTimeNamespaceSeesThatTheWriterLives) {
  auto t = writer();
  const Child other([this]() -> std::string {
    if (::unshare(CLONE_NEWTIME) != 0) return "none";
    if (!(std::ofstream("/proc/self/timens_offsets") << "boottime 7000 300000000\n" << std::flush))
      return "none";
    const Child inside(
        [this] { return std::to_string(reader()->snapshot().state == State::live); });
    return inside.said;
  });
  if (other.said == "none") GTEST_SKIP() << "no time namespaces here";
  EXPECT_EQ(other.said, "1");
}

TEST_F(ShmTable, ReaderRefusesOrSurvivesWhateverHasTheName) {
  auto t = writer();
  for (uint64_t i = 0; i < capacity; ++i) t->put(key(i), value(i));
  const std::string good = fileContent();
  t = nullptr;
  auto r = reader();
  Octets got;
  const auto refuses = [&] {
    EXPECT_FALSE(r->get(key(1), got));
    const auto s = r->snapshot();
    EXPECT_TRUE(s.records.empty());
    EXPECT_EQ(s.state, State::foreign);
    std::filesystem::remove(path);
  };
  const auto write = [&](const std::string& content) {
    std::filesystem::remove(path);
    std::ofstream(path, std::ios::binary) << content;
  };
  write(good);
  EXPECT_EQ(r->snapshot().records.size(), capacity) << "or the rest proves nothing";
  for (const auto& [k, v] : {std::pair(keyLen + 8, valueLen), std::pair(keyLen, valueLen + 1)})
    EXPECT_EQ(shmTableReader(name, k, v)->snapshot().state, State::foreign);
  std::vector<std::string> bad = {good + "x", std::string(good.size(), '\xff')};
  for (const size_t len : {0, 1, 8, 100, 255, 256, 257, 4096}) bad.push_back(good.substr(0, len));
  // Each field that is not the writer's name or time, overwritten.
  for (const size_t at : {0, 8, 12, 56, 64, 72, 80, 88, 96, 104})
    for (const uint64_t v : {uint64_t{0}, uint64_t{3}, uint64_t{1} << 31, ~uint64_t{0}}) {
      bad.push_back(good);
      std::memcpy(bad.back().data() + at, &v, at == 8 || at == 12 ? 4 : 8);
    }
  for (const std::string& content : bad) {
    SCOPED_TRACE(&content - bad.data());
    write(content);
    refuses();
  }
  std::filesystem::create_directory(path);
  refuses();
  std::filesystem::create_symlink("/etc/passwd", path);
  refuses();
  ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0);
  refuses();  // and does not wait for somebody to write into it

  // Anything but the first octets, so that many get past the header.
  support::eachSeed(200, [&](unsigned seed) {
    std::mt19937 random(seed);
    std::string content = good;
    content[40] ^= 16;  // another process's: nobody waits for a writer that died
    for (unsigned n = random() % 2000; n > 0; --n)
      content[112 + random() % (content.size() - 112)] = static_cast<char>(random() % 4);
    write(content);
    const auto s = r->snapshot();
    EXPECT_LE(s.records.size() + s.unreadable, slots);
    for (uint64_t k = 0; k < capacity; ++k) r->get(key(k), got);
  });
}

// docs/shared-memory.md: where a key is looked for. (The rest of the layout is read by
// examples/read_counters.py in a system test.)
TEST_F(ShmTable, LayoutIsTheDocumentedOne) {
  auto t = writer();
  for (uint64_t n = 0; n < 100; ++n) {
    uint64_t tag = keyLen;
    for (const uint64_t word : {n, n, n & 0xffffffff}) {  // 20 octets, padded
      tag = (tag ^ word) * 0x9e3779b97f4a7c15;
      tag ^= tag >> 32;
    }
    t->put(key(n), value(n));
    const std::string slot = fileContent().substr(firstSlot + tag % slots * slotLen, slotLen);
    EXPECT_EQ(u64(slot, 8), tag);
    EXPECT_EQ(std::memcmp(slot.data() + 16, key(n).data(), keyLen), 0);
    EXPECT_EQ(std::memcmp(slot.data() + 40, value(n).data(), valueLen), 0);
    t->del(key(n));
  }
}

}  // namespace
