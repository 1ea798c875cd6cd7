#include "agent/flow/PacketFilter.h"

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <list>
#include <mutex>
#include <span>

#include "agent/flow/ExtendedFilter.h"
#include "agent/settings/PacketExpression.h"

namespace agent::flow {
namespace {
using Program = std::vector<sock_filter>;

constexpr size_t leafMax = 8;  // numbers that are compared one by one
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

constexpr uint32_t loopback = 1;  // the index of lo in every namespace

/// Appends the search for the accumulator among sorted numbers. It ends the program: with `snapLen`
/// where it finds the number, else with 0.
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

/// Rejects packets of the wrong direction. With `ingress` the socket does so itself
/// (PACKET_IGNORE_OUTGOING).
void appendDirection(Program& program, Direction direction) {
  if (direction == Direction::ingress || direction == Direction::both) return;
  program.push_back(ancillary(SKF_AD_PKTTYPE));
  if (direction == Direction::egress) {
    program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 1, 0));
    program.push_back(result(0));
    return;
  }
  // What leaves by lo also arrives there, and is counted then.
  program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 5));
  program.push_back(ancillary(adIngress));
  program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 2));
  program.push_back(ancillary(SKF_AD_IFINDEX));
  program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, loopback, 0, 1));
  program.push_back(result(0));
}

/// Replaces the results between `from` and `to` by jumps: to `accepted` where they accept, else to
/// `rejected`. With `rejected` 0 those that reject stay.
void leadOn(Program& program, size_t from, size_t to, size_t accepted, size_t rejected) {
  for (size_t i = from; i < to; ++i) {
    if (program[i].code != (BPF_RET | BPF_K)) continue;
    const size_t place = program[i].k > 0 ? accepted : rejected;
    if (place > 0) program[i] = statement(BPF_JMP | BPF_JA, static_cast<uint32_t>(place - i - 1));
  }
}

constexpr size_t programsMax = 64;

/// The expression's program. The last ones are remembered: one takes up to 0.2 s to make, and is
/// needed again whenever the interfaces change, in each VRF. For any thread.
std::vector<sock_filter> expressionProgram(const std::string& text, LinkLayer link) {
  struct Known {
    std::string text;
    LinkLayer link;
    std::vector<sock_filter> code;
  };
  static std::mutex mutex;
  static std::list<Known> programs;  // the last that was asked for in front
  const std::lock_guard lock(mutex);
  const auto known = std::find_if(programs.begin(), programs.end(),
                                  [&](const Known& k) { return k.link == link && k.text == text; });
  if (known != programs.end()) {
    programs.splice(programs.begin(), programs, known);
  } else {
    programs.push_front({text, link, compilePacketExpression(text, link).code});
    if (programs.size() > programsMax) programs.pop_back();
  }
  return programs.front().code;
}

void appendExpression(Program& program, const std::string& text, LinkLayer link, uint32_t snapLen) {
  Program part = expressionProgram(text, link);
  // It has no meaning for this link layer, as one about Ethernet addresses: it chooses no packet.
  if (part.empty()) part = {result(0)};
  for (sock_filter& f : part)
    if (f.code == (BPF_RET | BPF_K) && f.k > 0) f.k = snapLen;
  program.insert(program.end(), part.begin(), part.end());
}

/// Sampling, direction, interfaces, and the expression at last. Sampling is random for each packet,
/// so the outcome is the same as if it came behind the expression. `any`: packets of all
/// interfaces.
FilterSource compose(const PacketChoice& choice, Direction direction, uint32_t snapLen, bool any) {
  FilterSource source;
  Program& program = source.code;
  program.reserve(16 + 2 * choice.interfaces.size());
  appendSampling(program, choice.sampleRate);
  appendDirection(program, direction);
  const bool all = choice.expression.empty() || (!any && choice.interfaces.empty());
  const size_t tree = program.size();
  if (!any) {
    program.push_back(ancillary(SKF_AD_IFINDEX));
    appendTree(program, choice.interfaces, snapLen);
  } else if (all) {
    program.push_back(result(snapLen));
  }
  source.ethernet = source.raw = program.size();
  if (all) return source;
  leadOn(program, tree, program.size(), program.size(), 0);
  const size_t kinds = program.size();
  const bool raw = !choice.withoutEthernet.empty();
  if (raw) {
    program.push_back(ancillary(SKF_AD_IFINDEX));
    appendTree(program, choice.withoutEthernet, snapLen);
  }
  source.ethernet = program.size();
  appendExpression(program, choice.expression, LinkLayer::ethernet, snapLen);
  source.raw = program.size();
  leadOn(program, kinds, source.ethernet, source.raw, source.ethernet);
  if (!raw) return source;
  // The expression would take the first octet of any other packet for a version of IP.
  program.push_back(ancillary(SKF_AD_PROTOCOL));
  program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 2, 0));
  program.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 1, 0));
  program.push_back(result(0));
  appendExpression(program, choice.expression, LinkLayer::raw, snapLen);
  return source;
}

/// None, and errno, where the kernel refuses: E2BIG, it is too long; EPERM, we may load none.
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

std::vector<sock_filter> classicFilter(const PacketChoice& choice, Direction direction,
                                       uint32_t snapLen, bool any) {
  FilterSource source = compose(choice, direction, snapLen, any);
  // By this number the kernel knows offsets that begin at the network header.
  for (size_t i = source.raw; i < source.code.size(); ++i)
    if (loadsPacket(source.code[i]) && source.code[i].k <= packetOffsetMax)
      source.code[i].k += static_cast<uint32_t>(SKF_NET_OFF);
  return std::move(source.code);
}

PacketFilter extendedFilter(PacketChoice choice, Direction direction, uint32_t snapLen) {
  PacketFilter filter{.choice = std::move(choice)};
  const auto code = [&](bool any) {
    return extendedProgram(compose(filter.choice, direction, snapLen, any), snapLen);
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
