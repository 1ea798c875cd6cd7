#include "agent/flow/PacketFilter.h"

#include <linux/bpf.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <span>

namespace agent::flow {
namespace {
using Program = std::vector<sock_filter>;

constexpr size_t leafMax = 8;
// A socket has room for two programs of this length, the new one and the one before, where
// net.core.optmem_max is 20480 octets, as it was until Linux 6.6.
constexpr size_t surelyAttached = 1200;  // instructions

constexpr sock_filter statement(uint16_t code, uint32_t k) { return {code, 0, 0, k}; }
constexpr sock_filter jump(uint16_t code, uint32_t k, size_t ifTrue, size_t ifFalse) {
  return {code, static_cast<uint8_t>(ifTrue), static_cast<uint8_t>(ifFalse), k};
}
constexpr sock_filter ancillary(int what) {
  return statement(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + what));
}
constexpr sock_filter result(uint32_t octets) { return statement(BPF_RET | BPF_K, octets); }

// Not the kernel's: of these programs only, which `extended` translates. The index of the interface
// that the packet came in by; 0 of packets that this machine made.
constexpr int adIngress = SKF_AD_MAX;
constexpr uint32_t loopback = 1;  // the index of lo in every namespace

/// Appends the search for the accumulator among sorted numbers; no matter where it ends, it
/// returns.
void appendTree(Program& program, std::span<const uint32_t> numbers, uint32_t snapLen) {
  if (numbers.size() <= leafMax) {
    for (size_t i = 0; i < numbers.size(); ++i)
      program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, numbers[i], numbers.size() - i, 0));
    program.push_back(result(0));
    if (!numbers.empty()) program.push_back(result(snapLen));
    return;
  }
  const size_t half = numbers.size() / 2;
  Program below;
  appendTree(below, numbers.first(half), snapLen);
  const auto len = static_cast<uint32_t>(below.size());
  if (len <= 255) {
    program.push_back(jump(BPF_JMP | BPF_JGE | BPF_K, numbers[half], len, 0));
  } else {  // farther than a conditional jump reaches
    program.push_back(jump(BPF_JMP | BPF_JGE | BPF_K, numbers[half], 0, 1));
    program.push_back(statement(BPF_JMP | BPF_JA, len));
  }
  program.insert(program.end(), below.begin(), below.end());
  appendTree(program, numbers.subspan(half), snapLen);
}

/// Sampling comes first: at high rates it spares most packets the rest.
void appendSampling(Program& program, uint32_t sampleRate) {
  if (sampleRate <= 1) return;
  const uint64_t share = ((uint64_t{1} << 32) + sampleRate / 2) / sampleRate;
  program.push_back(ancillary(SKF_AD_RANDOM));
  program.push_back(jump(BPF_JMP | BPF_JGE | BPF_K, static_cast<uint32_t>(share), 0, 1));
  program.push_back(result(0));
}

/// What is counted of the packets that leave; those that arrive are where the socket hears them.
void appendDirection(Program& program, Direction direction) {
  if (direction == Direction::ingress || direction == Direction::both) return;
  program.push_back(ancillary(SKF_AD_PKTTYPE));
  if (direction == Direction::egress) {
    program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 1, 0));
    program.push_back(result(0));
    return;
  }
  // What leaves by lo arrives there.
  program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 5));
  program.push_back(ancillary(adIngress));
  program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 2));
  program.push_back(ancillary(SKF_AD_IFINDEX));
  program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, loopback, 0, 1));
  program.push_back(result(0));
}

/// Writes programs of the extended machine. Places that jumps lead to are numbered.
class Assembler {
 public:
  explicit Assembler(size_t places) : at_(places) {}

  void add(int code, int to, int from, int offset, uint32_t k) {
    bpf_insn i{};
    i.code = static_cast<uint8_t>(code);
    i.dst_reg = static_cast<uint8_t>(to & 15);
    i.src_reg = static_cast<uint8_t>(from & 15);
    i.off = static_cast<int16_t>(offset);
    i.imm = static_cast<int32_t>(k);
    code_.push_back(i);
  }
  void set(int to, uint32_t k) { with(BPF_MOV, to, k); }
  void copy(int to, int from) { by(BPF_MOV, to, from); }
  void with(int operation, int to, uint32_t k) { add(BPF_ALU64 | BPF_K | operation, to, 0, 0, k); }
  void by(int operation, int to, int from) { add(BPF_ALU64 | BPF_X | operation, to, from, 0, 0); }
  /// `width`: BPF_W, BPF_H or BPF_B.
  void load(int width, int to, int base, int offset) {
    add(BPF_LDX | BPF_MEM | width, to, base, offset, 0);
  }
  void call(uint32_t function) { add(BPF_JMP | BPF_CALL, 0, 0, 0, function); }
  void go(size_t place) { jumpTo(BPF_JMP | BPF_JA, 0, 0, 0, place); }
  /// Compares 32 bits.
  void goIf(int operation, int reg, uint32_t k, size_t place) {
    jumpTo(BPF_JMP32 | BPF_K | operation, reg, 0, k, place);
  }
  void goIfBy(int operation, int reg, int other, size_t place) {
    jumpTo(BPF_JMP | BPF_X | operation, reg, other, 0, place);
  }
  void end() { add(BPF_JMP | BPF_EXIT, 0, 0, 0, 0); }
  void here(size_t place) { at_[place] = code_.size(); }

  /// Empty: a jump cannot reach so far.
  std::vector<bpf_insn> finish() {
    if (code_.size() > INT16_MAX) return {};
    for (const auto& [from, place] : jumps_)
      code_[from].off = static_cast<int16_t>(at_[place] - from - 1);
    return std::move(code_);
  }

 private:
  struct Jump {
    size_t from, place;
  };
  void jumpTo(int code, int reg, int other, uint32_t k, size_t place) {
    jumps_.push_back({code_.size(), place});
    add(code, reg, other, 0, k);
  }

  std::vector<bpf_insn> code_;
  std::vector<Jump> jumps_;
  std::vector<size_t> at_;
};

// Calls overwrite registers 1 to 5; register 10 is the end of the stack.
constexpr int packet = 6, segmentLen = 7, segments = 8, headerLen = 9, stack = 10;
constexpr int room = -16;  // on the stack, for octets of the packet

/// Loads octets of the packet, counted from its network header, to `room`.
void loadOctets(Assembler& a, uint32_t len, size_t ifNone) {
  a.copy(1, packet);
  a.copy(3, stack);
  a.with(BPF_ADD, 3, static_cast<uint32_t>(room));
  a.set(4, len);
  a.set(5, BPF_HDR_START_NET);
  a.call(BPF_FUNC_skb_load_bytes_relative);
  a.goIf(BPF_JNE, 0, 0, ifNone);
}

/// Counts the segments of a packet whose sender, a virtual machine or its host, left the counting
/// to others: what is behind the headers of IP and TCP or UDP, by the length of a segment. The
/// number may be as wrong as what the headers say: where it goes it is bounded by the packet's
/// length. Goes on behind it; or at `single`.
void countSegments(Assembler& a, size_t transport, size_t divide, size_t single) {
  a.set(2, 0);
  loadOctets(a, 10, single);
  a.load(BPF_B, 1, stack, room);
  a.with(BPF_RSH, 1, 4);  // version
  a.load(BPF_H, segments, stack, room + 4);
  a.load(BPF_B, 2, stack, room + 6);
  a.set(headerLen, 40);
  a.add(BPF_ALU | BPF_END | BPF_TO_BE, segments, 0, 0, 16);
  a.goIf(BPF_JEQ, 1, 6, transport);
  a.load(BPF_H, segments, stack, room + 2);
  a.load(BPF_B, 2, stack, room + 9);
  a.load(BPF_B, headerLen, stack, room);
  a.with(BPF_AND, headerLen, 15);
  a.with(BPF_LSH, headerLen, 2);
  a.add(BPF_ALU | BPF_END | BPF_TO_BE, segments, 0, 0, 16);
  a.by(BPF_SUB, segments, headerLen);
  a.here(transport);  // register 2 has the protocol
  a.copy(1, headerLen);
  a.set(headerLen, 8);
  a.goIf(BPF_JEQ, 2, IPPROTO_UDP, divide);
  a.goIf(BPF_JNE, 2, IPPROTO_TCP, single);
  a.copy(2, 1);
  a.with(BPF_ADD, 2, 12);
  loadOctets(a, 1, single);
  a.load(BPF_B, headerLen, stack, room);
  a.with(BPF_RSH, headerLen, 4);
  a.with(BPF_LSH, headerLen, 2);
  a.here(divide);
  a.by(BPF_SUB, segments, headerLen);
  a.by(BPF_ADD, segments, segmentLen);
  a.with(BPF_SUB, segments, 1);
  a.by(BPF_DIV, segments, segmentLen);
}

/// A program for the extended machine, which can tell by which interface a packet came, and how
/// many segments it has.
std::vector<bpf_insn> extended(const Program& program, uint32_t snapLen) {
  const size_t accepted = program.size();
  const size_t counted = accepted + 1, transport = accepted + 2, divide = accepted + 3,
               single = accepted + 4, done = accepted + 5;
  Assembler a(accepted + 6);
  const auto member = [&](int to, size_t offset) {
    a.load(BPF_W, to, packet, static_cast<int>(offset));
  };
  a.copy(packet, 1);
  bool accepts = false;
  // Register 0 is the accumulator.
  for (size_t i = 0; i < program.size(); ++i) {
    const sock_filter& f = program[i];
    a.here(i);
    if (BPF_CLASS(f.code) == BPF_RET) {
      if (f.k > 0) {
        a.go(accepted);
        accepts = true;
      } else {
        a.set(0, 0);
        a.end();
      }
    } else if (f.code == (BPF_JMP | BPF_JA)) {
      a.go(i + 1 + f.k);
    } else if (BPF_CLASS(f.code) == BPF_JMP) {
      a.goIf(BPF_OP(f.code), 0, f.k, i + 1 + f.jt);
      if (f.jf > 0) a.go(i + 1 + f.jf);
    } else if (f.k == ancillary(SKF_AD_RANDOM).k) {
      a.call(BPF_FUNC_get_prandom_u32);
    } else if (f.k == ancillary(SKF_AD_IFINDEX).k) {
      member(0, offsetof(__sk_buff, ifindex));
    } else if (f.k == ancillary(SKF_AD_PKTTYPE).k) {
      member(0, offsetof(__sk_buff, pkt_type));
    } else {
      member(0, offsetof(__sk_buff, ingress_ifindex));
    }
  }
  if (!accepts) return a.finish();  // the kernel takes nothing that is never run
  a.here(accepted);
  member(segmentLen, offsetof(__sk_buff, gso_size));
  a.goIf(BPF_JEQ, segmentLen, 0, single);
  member(segments, offsetof(__sk_buff, gso_segs));
  a.goIf(BPF_JNE, segments, 0, counted);
  countSegments(a, transport, divide, single);
  a.here(counted);
  a.with(BPF_ADD, segments, snapLen - 1);
  a.copy(0, segments);
  member(1, offsetof(__sk_buff, len));
  a.goIfBy(BPF_JGE, 1, segments, done);
  a.here(single);
  a.set(0, snapLen);
  a.here(done);
  a.end();
  return a.finish();
}

/// None, and errno: E2BIG, the program is too long for the kernel; EPERM, it takes none from us.
platform::Fd load(const std::vector<bpf_insn>& code) {
  errno = E2BIG;
  if (code.empty()) return {};
  bpf_attr attributes{};
  attributes.prog_type = BPF_PROG_TYPE_SOCKET_FILTER;
  attributes.insns = reinterpret_cast<uintptr_t>(code.data());
  attributes.insn_cnt = static_cast<uint32_t>(code.size());
  attributes.license = reinterpret_cast<uintptr_t>("");
  return platform::Fd(
      static_cast<int>(::syscall(SYS_bpf, BPF_PROG_LOAD, &attributes, sizeof attributes)));
}
}  // namespace

std::vector<sock_filter> classicFilter(const PacketFilter& filter, Direction direction,
                                       uint32_t snapLen, bool any) {
  Program program;
  program.reserve(16 + 2 * filter.interfaces.size());
  appendSampling(program, filter.sampleRate);
  appendDirection(program, direction);
  if (any) {
    program.push_back(result(snapLen));
  } else {
    program.push_back(ancillary(SKF_AD_IFINDEX));
    appendTree(program, filter.interfaces, snapLen);
  }
  return program;
}

PacketFilter extendedFilter(std::vector<uint32_t> interfaces, uint32_t sampleRate,
                            Direction direction, uint32_t snapLen) {
  PacketFilter filter{.interfaces = std::move(interfaces), .sampleRate = sampleRate};
  const auto code = [&](bool any) {
    return extended(classicFilter(filter, direction, snapLen, any), snapLen);
  };
  const std::vector<bpf_insn> own = code(false);
  filter.program = load(own);
  if (!filter.program) filter.error = errno;
  if (filter.program ? own.size() > surelyAttached : filter.error == E2BIG) {
    filter.anyInterface = load(code(true));
    filter.error = filter.program || filter.anyInterface ? 0 : errno;
  }
  return filter;
}

}  // namespace agent::flow
