// Readers of the shared table against writers in other processes, at full speed and dying. Every
// octet of a value follows from its key, a count that only grows and a number that each writer
// draws for itself, so that a record mixed of two states, keys or writers gives itself away.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>

#include "platform/linux/ShmTable.h"
#include "tests/support/Random.h"

using namespace platform;
using State = ShmTableReader::Snapshot::State;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t words = 110;  // about what a collector's record takes
struct Value {
  uint64_t count = 0;
  uint64_t writer = 0;
  std::array<uint64_t, words> fill{};
};
constexpr uint64_t lasting = 100;  // ids below are never deleted once they are there
constexpr uint64_t ids = 200;
constexpr size_t capacity = 256;
constexpr auto deletionEvery = std::chrono::milliseconds(40);

uint64_t mixed(uint64_t id, uint64_t count, uint64_t writer, size_t i) {
  return (id * 0x9e3779b97f4a7c15 ^ count * 0xd1342543de82ef95 ^ writer) + i * 0x2545f4914f6cdd1d;
}
template <class T>
SharedTable::Octets octets(const T& v) {
  return std::as_bytes(std::span(&v, 1));
}

[[noreturn]] void fail(const char* what) { throw std::logic_error(what); }
double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Writes until it is killed.
void write(const std::string& name) {
  std::mt19937_64 random(std::random_device{}());
  auto table = shmTableFactory(name, sizeof(uint64_t), sizeof(Value), capacity);
  Value value;
  value.writer = random();
  auto put = [&](uint64_t id) {
    ++value.count;
    for (size_t i = 0; i < words; ++i) value.fill[i] = mixed(id, value.count, value.writer, i);
    if (!table->put(octets(id), octets(value))) fail("the table is full");
  };
  for (uint64_t id = 0; id < ids; ++id) put(id);
  for (auto deletion = Clock::now();; put(random() % ids)) {
    if (Clock::now() < deletion) continue;
    deletion += deletionEvery;
    table->del(octets(lasting + random() % (ids - lasting)));
  }
}

/// What every reader checks of what it reads.
class Judge {
 public:
  void snapshot(const ShmTableReader::Snapshot& s) {
    if (s.generation != generation_) {
      generation_ = s.generation;
      writer_ = 0;
      counts_.clear();
      filled_ = false;
    }
    uint64_t lastingSeen = 0;
    std::array<bool, ids> seen{};
    for (const auto& r : s.records) {
      const uint64_t id = record(r.key, r.value);
      if (seen[id]) fail("a key twice in one snapshot");
      seen[id] = true;
      lastingSeen += id < lasting;
    }
    if (filled_ && s.unreadable == 0 && lastingSeen < lasting) fail("a lasting record is missing");
    filled_ = filled_ || lastingSeen == lasting;
  }
  uint64_t record(std::span<const std::byte> k, std::span<const std::byte> v) {
    uint64_t id;
    Value value;
    if (k.size() != sizeof id || v.size() != sizeof value) fail("a record of another length");
    std::memcpy(&id, k.data(), sizeof id);
    std::memcpy(&value, v.data(), sizeof value);
    if (id >= ids) fail("a torn key");
    for (size_t i = 0; i < words; ++i)
      if (value.fill[i] != mixed(id, value.count, value.writer, i)) fail("a torn record");
    if (writer_ != 0 && value.writer != writer_) fail("two writers in one table");
    writer_ = value.writer;
    uint64_t& last = counts_[id];
    if (value.count < last) fail("a record went back in time");
    last = value.count;
    return id;
  }

 private:
  uint64_t generation_ = 0;
  uint64_t writer_ = 0;
  bool filled_ = false;  // the writer got that far
  std::map<uint64_t, uint64_t> counts_;
};

/// What the reader process tells its parent.
struct Shared {
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> generation{0};
  std::atomic<uint64_t> retries{0};
};

/// How many records are found by their key.
uint64_t getAll(ShmTableReader& reader) {
  uint64_t found = 0;
  std::vector<std::byte> value;
  for (uint64_t id = 0; id < ids; ++id) {
    if (!reader.get(octets(id), value)) continue;
    if (Judge().record(octets(id), value) != id) fail("another key's record");
    ++found;
  }
  return found;
}

/// Reads until it is told to stop.
void readOn(const std::string& name, Shared& shared) {
  auto reader = shmTableReader(name, sizeof(uint64_t), sizeof(Value));
  Judge judge;
  while (!shared.stop) {
    const auto start = Clock::now();
    const auto s = reader->snapshot();
    if (since(start) > 5) fail("that is a hang");
    if (s.state == State::foreign) fail("a table of ours seen as foreign");
    if (s.generation != 0) {
      if (s.generation < shared.generation) fail("generations go back");
      shared.generation = s.generation;
    }
    judge.snapshot(s);
    shared.retries += s.retries;
  }
}

template <class Body>
pid_t started(Body body) {
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    body();
    ::_exit(0);
  } catch (const std::exception& e) {
    std::cerr << e.what() << std::endl;
  }
  ::_exit(1);
}

TEST(ShmCampaign, NoReaderHangsOrIsMisled) {
  const unsigned rounds = support::fromEnvironment("TARN_ROUNDS", 200);
  const std::string name = "/tt-campaign-" + std::to_string(::getpid());
  auto* shared = new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
  const pid_t hammer = started([&] { readOn(name, *shared); });
  auto reader = shmTableReader(name, sizeof(uint64_t), sizeof(Value));
  std::mt19937 random(std::random_device{}());
  int halfDone = 0;
  bool any = false;  // table was made
  uint64_t wanted = 0, found = 0;
  for (unsigned round = 0; round < rounds; ++round) {
    const pid_t writer = started([&] { write(name); });
    if (round % 4 == 0) {  // possibly before its table is there
      ::usleep(random() % 3000);
    } else {
      ShmTableReader::Snapshot s;
      for (const auto start = Clock::now();
           s.writerPid != writer || s.state != State::live || shared->generation != s.generation;
           s = reader->snapshot())
        ASSERT_LT(since(start), 10) << "the new writer's table is not found";
      const double time = 0.05 * static_cast<double>(random()) / static_cast<double>(random.max());
      for (const auto start = Clock::now(); since(start) < time; wanted += ids)
        found += getAll(*reader);
    }
    ::kill(writer, SIGKILL);
    for (const auto start = Clock::now(); reader->snapshot().state == State::live;)
      ASSERT_LT(since(start), 10) << "dead, though its parent has not waited for it";
    int status = 0;
    ::waitpid(writer, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer died by itself";
    const auto s = reader->snapshot();
    Judge().snapshot(s);
    ASSERT_EQ(getAll(*reader), s.records.size());
    ASSERT_EQ(s.state, s.generation == 0 && !any ? State::absent : State::dead);
    ASSERT_LE(s.unreadable, 1u) << "more than one record lost with the writer";
    halfDone += s.unreadable == 1;
    any = any || s.generation != 0;
    ASSERT_EQ(::waitpid(hammer, nullptr, WNOHANG), 0) << "the reader process gave up";
  }
  shared->stop = true;
  int status = 0;
  ::waitpid(hammer, &status, 0);
  EXPECT_EQ(status, 0) << "the reader process gave up";
  for (const char* suffix : {"", ".lock", ".new"})
    std::filesystem::remove("/dev/shm" + name + suffix);
  EXPECT_GT(found, wanted * 4 / 5) << "records are not found by their key";
  EXPECT_GT(halfDone, 0) << "no writer died inside a record: nothing was tried";
  EXPECT_GT(shared->retries, 0u) << "no writer was ever in the way";
}

}  // namespace
