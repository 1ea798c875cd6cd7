// Readers of the shared table against a writer in another process, at full speed and dying.
//
//   shm_campaign read COUNT     reads that many records; none may be torn or lost
//   shm_campaign kill ROUNDS    kills the writer so many times; no reader may hang or be misled
//
// Every octet of a value follows from its key, a count that only grows and a number that each
// writer draws for itself, so that a record mixed of two states, keys or writers gives itself away.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <string>

#include "platform/UdpPam.h"
#include "platform/linux/ShmTable.h"

using namespace platform;
using State = ShmTableReader::Snapshot::State;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t words = 110;  // about what a collector's record takes
struct Key {
  uint64_t id = 0;
  uint64_t pad[2] = {};
};
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

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "shm_campaign: " << what << '\n';
  std::exit(1);
}

/// Writes until it is killed.
[[noreturn]] void write(const std::string& name) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::mt19937_64 random(std::random_device{}());
  auto table = shmTableFactory(name, sizeof(Key), sizeof(Value), capacity);
  Key key;
  Value value;
  value.writer = random();
  auto put = [&](uint64_t id) {
    key.id = id;
    ++value.count;
    for (size_t i = 0; i < words; ++i) value.fill[i] = mixed(id, value.count, value.writer, i);
    if (!table->put(octets(key), octets(value))) fail("the table is full");
  };
  for (uint64_t id = 0; id < ids; ++id) put(id);
  for (auto deletion = Clock::now(); Clock::now() >= deletion; deletion += deletionEvery) {
    key.id = lasting + random() % (ids - lasting);
    table->del(octets(key));
    do {
      for (int i = 0; i < 64; ++i) put(random() % ids);
    } while (Clock::now() < deletion + deletionEvery);
  }
  std::abort();
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
    Key key;
    Value value;
    if (k.size() != sizeof key || v.size() != sizeof value) fail("a record of another length");
    std::memcpy(&key, k.data(), sizeof key);
    std::memcpy(&value, v.data(), sizeof value);
    if (key.id >= ids || key.pad[0] || key.pad[1]) fail("a torn key");
    for (size_t i = 0; i < words; ++i)
      if (value.fill[i] != mixed(key.id, value.count, value.writer, i)) fail("a torn record");
    if (writer_ != 0 && value.writer != writer_) fail("two writers in one table");
    writer_ = value.writer;
    uint64_t& last = counts_[key.id];
    if (value.count < last) fail("a record went back in time");
    last = value.count;
    ++records;
    return key.id;
  }
  uint64_t records = 0;

 private:
  uint64_t generation_ = 0;
  uint64_t writer_ = 0;
  bool filled_ = false;  // the writer got that far
  std::map<uint64_t, uint64_t> counts_;
};

pid_t startWriter(const std::string& name) {
  const pid_t pid = ::fork();
  if (pid < 0) fail("fork");
  if (pid == 0) {
    try {
      write(name);
    } catch (const std::exception& e) {
      fail(e.what());
    }
  }
  return pid;
}
void killed(pid_t pid) {
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) fail("the writer died by itself");
}
double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The generation of the writer's table, once that is there.
uint64_t waitFor(ShmTableReader& reader, pid_t writer) {
  const auto start = Clock::now();
  for (;;) {
    const auto s = reader.snapshot();
    if (s.state == State::live && s.writerPid == writer) return s.generation;
    if (since(start) > 10) fail("the new writer's table is not found");
    ::usleep(200);
  }
}

int read(const std::string& name, uint64_t wanted) {
  const pid_t writer = startWriter(name);
  auto reader = shmTableReader(name, sizeof(Key), sizeof(Value));
  waitFor(*reader, writer);
  Judge judge;
  std::mt19937_64 random(1);
  uint64_t snapshots = 0, retries = 0, gets = 0;
  std::vector<std::byte> value;
  while (judge.records < wanted) {
    const auto s = reader->snapshot();
    if (s.state != State::live) fail("the living writer is not seen as such");
    judge.snapshot(s);
    ++snapshots;
    retries += s.retries;
    for (int i = 0; i < 20; ++i) {
      Key key;
      key.id = random() % lasting;
      if (!reader->get(octets(key), value)) continue;
      if (judge.record(octets(key), value) != key.id) fail("another key's record");
      ++gets;
    }
  }
  killed(writer);
  std::cout << judge.records << " records in " << snapshots << " snapshots and " << gets
            << " by key, none torn; " << retries << " reads repeated\n";
  if (retries == 0) fail("the writer was never in the way: nothing was tried");
  if (gets < snapshots * 19) fail("lasting records were not found by key");
  return 0;
}

/// What the reader process of the second campaign tells its parent.
struct Shared {
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> generation{0};
  std::atomic<double> longest{0};  // seconds that one snapshot took
};

[[noreturn]] void readOn(const std::string& name, Shared& shared) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  auto reader = shmTableReader(name, sizeof(Key), sizeof(Value));
  Judge judge;
  while (!shared.stop) {
    const auto start = Clock::now();
    const auto s = reader->snapshot();
    shared.longest = std::max(shared.longest.load(), since(start));
    if (s.state == State::foreign) fail("a table of ours seen as foreign");
    if (s.generation != 0) {
      if (s.generation < shared.generation) fail("generations go back");
      shared.generation = s.generation;
    }
    judge.snapshot(s);
  }
  std::exit(0);
}

int kill(const std::string& name, int rounds) {
  auto* shared = new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
  const pid_t hammer = ::fork();
  if (hammer == 0) readOn(name, *shared);
  auto reader = shmTableReader(name, sizeof(Key), sizeof(Value));
  std::mt19937 random(std::random_device{}());
  int halfDone = 0;
  bool any = false;  // table has been made
  for (int round = 0; round < rounds; ++round) {
    const pid_t writer = startWriter(name);
    if (round % 4 == 0) {  // possibly before its table is there
      ::usleep(random() % 3000);
    } else {
      const uint64_t generation = waitFor(*reader, writer);
      for (const auto start = Clock::now(); shared->generation != generation;)
        if (since(start) > 10) fail("the reader process does not find the new writer's table");
      ::usleep(random() % 5000);
    }
    killed(writer);
    const auto s = reader->snapshot();
    Judge().snapshot(s);
    any = any || s.generation != 0;
    if (s.state == State::absent && !any) continue;
    if (s.state != State::dead) fail("the dead writer's table is not seen as such");
    if (s.unreadable > 1) fail("more than one record lost with the writer");
    halfDone += s.unreadable == 1;
    if (::waitpid(hammer, nullptr, WNOHANG) != 0) fail("the reader process gave up");
  }
  shared->stop = true;
  int status = 0;
  ::waitpid(hammer, &status, 0);
  if (status != 0) fail("the reader process gave up");
  std::cout << rounds << " writers killed, " << halfDone
            << " inside a record; the longest snapshot " << shared->longest * 1e3 << " ms\n";
  if (shared->longest > 5) fail("a snapshot that long is a hang");
  if (halfDone == 0) fail("no writer died inside a record: nothing was tried");
  return 0;
}

std::string segment;
pid_t owner;
void removeSegment() {
  if (::getpid() != owner) return;  // a child leaves through here too
  std::error_code ignored;
  for (const char* suffix : {"", ".lock", ".new"})
    std::filesystem::remove("/dev/shm" + segment + suffix, ignored);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc == 3 ? argv[1] : "";
  const long count = argc == 3 ? std::atol(argv[2]) : 0;
  if ((mode != "read" && mode != "kill") || count <= 0) {
    std::cerr << "usage: shm_campaign read COUNT | kill ROUNDS\n";
    return 2;
  }
  owner = ::getpid();
  segment = "/tt-campaign-" + std::to_string(owner);
  std::atexit(removeSegment);
  return mode == "read" ? read(segment, static_cast<uint64_t>(count))
                        : kill(segment, static_cast<int>(count));
}
