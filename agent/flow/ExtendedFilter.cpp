#include "agent/flow/ExtendedFilter.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <utility>

#include "agent/flow/FilterAssembler.h"
#include "agent/settings/PacketExpression.h"

namespace agent::flow {
namespace {
// Calls and loads from the packet overwrite registers 0 to 5; loads find the packet by register 6,
// register 10 is the end of the stack. The program chooses packets first, and then counts segments:
// both use registers 7 to 9.
constexpr int packet = 6, stack = 10;
constexpr int accumulator = 7, index = 8, offset = 9;
constexpr int segmentLen = 7, segments = 8, headerLen = 9;
constexpr int room = -16;                        // on the stack, for octets of the packet
constexpr int memory = room - 4 * BPF_MEMWORDS;  // and for the classic machine's memory

constexpr uint32_t tagAt = 12, tagLen = 4;  // the VLAN tag's place in a frame, in octets

/// Copies `len` octets of the packet to `room`. Register 2 has the offset from its network header.
/// Goes to `ifNone` where the packet is shorter.
void loadOctets(FilterAssembler& a, uint32_t len, size_t ifNone) {
  a.copy(1, packet);
  a.copy(3, stack);
  a.with(BPF_ADD, 3, static_cast<uint32_t>(room));
  a.set(4, len);
  a.set(5, BPF_HDR_START_NET);
  a.call(BPF_FUNC_skb_load_bytes_relative);
  a.goIf(BPF_JNE, 0, 0, ifNone);
}

/// Counts the segments of a packet whose sender, a virtual machine or its host, left the counting
/// to others: the octets behind the headers of IP and TCP or UDP, divided by the length of a
/// segment and rounded up. The headers may be wrong, so the code that follows compares the number
/// with the packet's length. Goes to `single` where the packet counts as one.
void countSegments(FilterAssembler& a, size_t transport, size_t divide, size_t single) {
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

/// Where the offsets begin that an instruction of the source has.
enum class Octets {
  frame,        ///< at the frame, as the packet socket has it
  taggedFrame,  ///< at the frame with the VLAN tag that the device took off
  network       ///< at the network header
};

/// Translates a source. As the classic machine does, the program computes with 32 bits, rejects a
/// packet when it loads from beyond its end, and begins with zeros in registers and memory.
class Translation {
 public:
  explicit Translation(const FilterSource& source) : source_(source) {}
  /// Packets that the source accepts go to `accepted`. False: the source accepts none.
  bool write(FilterAssembler& a, size_t accepted);

 private:
  void part(size_t from, size_t to, Octets octets);
  void instruction(const sock_filter& f, size_t at);
  void load(const sock_filter& f);
  void ancillary(uint32_t what);
  void octetsTo(int to, const sock_filter& f);
  void taggedTo(int to, uint32_t at, uint32_t width);
  void taggedIndirect(const sock_filter& f, uint32_t width);
  void arithmetic(const sock_filter& f);
  void jump(const sock_filter& f, size_t at);
  void member(int to, size_t at) { a_->load(BPF_W, to, packet, static_cast<int>(at)); }
  void swap16(int reg) { a_->add(BPF_ALU | BPF_END | BPF_TO_BE, reg, 0, 0, 16); }
  void packetLoad(int mode, int size, uint32_t k) {
    a_->add(BPF_LD | mode | size, 0, mode == BPF_IND ? index : 0, 0, k);
  }
  void alu(int operation, int to, uint32_t k) { a_->add(BPF_ALU | BPF_K | operation, to, 0, 0, k); }
  void reject() {
    rejects_ = true;
    a_->go(rejected_);
  }
  void rejectIf(int operation, int reg, uint32_t k) {
    rejects_ = true;
    a_->goIf(operation, reg, k, rejected_);
  }
  size_t placeOf(size_t at) const { return places_[at - from_]; }

  const FilterSource& source_;
  FilterAssembler* a_ = nullptr;
  size_t accepted_ = 0;
  size_t rejected_ = 0;
  size_t tagged_ = 0;  // where the expression about tagged frames is
  bool accepts_ = false;
  bool rejects_ = false;
  // About the part that is being written.
  Octets octets_ = Octets::frame;
  size_t from_ = 0;
  std::vector<size_t> places_;
};

bool Translation::write(FilterAssembler& a, size_t accepted) {
  a_ = &a;
  accepted_ = accepted;
  rejected_ = a.place();
  tagged_ = a.place();
  const auto usesMemory = [](const sock_filter& f) {
    const int kind = BPF_CLASS(f.code);
    return kind == BPF_ST || kind == BPF_STX ||
           ((kind == BPF_LD || kind == BPF_LDX) && BPF_MODE(f.code) == BPF_MEM);
  };
  a.set(accumulator, 0);
  a.set(index, 0);
  const size_t end = source_.code.size();
  if (std::any_of(source_.code.begin(), source_.code.end(), usesMemory))
    for (int i = 0; i < BPF_MEMWORDS; i += 2)
      a.add(BPF_ST | BPF_MEM | BPF_DW, stack, 0, memory + 4 * i, 0);
  part(0, end, Octets::frame);
  if (source_.ethernet < source_.raw) {
    a.here(tagged_);
    part(source_.ethernet, source_.raw, Octets::taggedFrame);
  }
  if (rejects_) {
    a.here(rejected_);
    a.set(0, 0);
    a.end();
  }
  return accepts_;
}

void Translation::part(size_t from, size_t to, Octets octets) {
  from_ = from;
  places_.clear();
  for (size_t i = from; i < to; ++i) places_.push_back(a_->place());
  for (size_t i = from; i < to; ++i) {
    octets_ = octets == Octets::frame && i >= source_.raw ? Octets::network : octets;
    a_->here(placeOf(i));
    if (octets_ == Octets::frame && i == source_.ethernet) {
      member(0, offsetof(__sk_buff, vlan_present));
      a_->goIf(BPF_JNE, 0, 0, tagged_);
    }
    instruction(source_.code[i], i);
  }
}

void Translation::instruction(const sock_filter& f, size_t at) {
  const int to = BPF_CLASS(f.code) == BPF_LDX || BPF_CLASS(f.code) == BPF_STX ? index : accumulator;
  switch (BPF_CLASS(f.code)) {
    case BPF_LD:
    case BPF_LDX:
      return load(f);
    case BPF_ST:
    case BPF_STX:
      return a_->add(BPF_STX | BPF_MEM | BPF_W, stack, to, memory + 4 * static_cast<int>(f.k), 0);
    case BPF_ALU:
      return arithmetic(f);
    case BPF_JMP:
      return jump(f, at);
    case BPF_MISC:
      return BPF_MISCOP(f.code) == BPF_TAX ? a_->copy(index, accumulator)
                                           : a_->copy(accumulator, index);
    default:  // BPF_RET
      if (BPF_RVAL(f.code) == BPF_A) rejectIf(BPF_JEQ, accumulator, 0);
      if (BPF_RVAL(f.code) != BPF_A && f.k == 0) return reject();
      accepts_ = true;
      a_->go(accepted_);
  }
}

void Translation::load(const sock_filter& f) {
  const int to = BPF_CLASS(f.code) == BPF_LDX ? index : accumulator;
  switch (BPF_MODE(f.code)) {
    case BPF_IMM:
      return a_->add(BPF_ALU | BPF_K | BPF_MOV, to, 0, 0, f.k);
    case BPF_MEM:
      return a_->load(BPF_W, to, stack, memory + 4 * static_cast<int>(f.k));
    case BPF_LEN:
      member(to, offsetof(__sk_buff, len));
      if (octets_ == Octets::taggedFrame) alu(BPF_ADD, to, tagLen);
      return;
    case BPF_MSH:
      octetsTo(to, f);
      alu(BPF_AND, to, 15);
      return alu(BPF_LSH, to, 2);
    default:
      if (f.k >= static_cast<uint32_t>(SKF_AD_OFF)) return ancillary(f.k - SKF_AD_OFF);
      octetsTo(to, f);
  }
}

void Translation::ancillary(uint32_t what) {
  if (what == SKF_AD_RANDOM) {
    a_->call(BPF_FUNC_get_prandom_u32);
    return a_->copy(accumulator, 0);
  }
  member(accumulator, what == SKF_AD_IFINDEX    ? offsetof(__sk_buff, ifindex)
                      : what == SKF_AD_PKTTYPE  ? offsetof(__sk_buff, pkt_type)
                      : what == SKF_AD_PROTOCOL ? offsetof(__sk_buff, protocol)
                                                : offsetof(__sk_buff, ingress_ifindex));
  if (what == SKF_AD_PROTOCOL) swap16(accumulator);
}

/// Loads the octets of the packet that the instruction names. Where the packet is shorter, the
/// kernel ends the program and rejects it.
void Translation::octetsTo(int to, const sock_filter& f) {
  const int size = BPF_SIZE(f.code);
  const uint32_t width = size == BPF_W ? 4 : size == BPF_H ? 2 : 1;
  const int mode = BPF_MODE(f.code) == BPF_IND ? BPF_IND : BPF_ABS;
  // To the kernel an offset below zero begins elsewhere, at the network header for instance: a
  // larger index could make such an offset.
  if (mode == BPF_IND) rejectIf(BPF_JGT, index, packetOffsetMax);
  if (octets_ != Octets::taggedFrame) {
    packetLoad(mode, size, octets_ == Octets::network ? f.k + SKF_NET_OFF : f.k);
    a_->copy(to, 0);
  } else if (mode == BPF_IND) {
    taggedIndirect(f, width);
  } else {
    taggedTo(to, f.k, width);
  }
}

/// Loads octets of a frame whose tag the device took off: those of the tag from what the kernel
/// noted of it, those behind it from `tagLen` octets before their place in the frame.
void Translation::taggedTo(int to, uint32_t at, uint32_t width) {
  constexpr uint32_t behind = tagAt + tagLen;
  if (at + width <= tagAt || at >= behind) {
    packetLoad(BPF_ABS,
               width == 4   ? BPF_W
               : width == 2 ? BPF_H
                            : BPF_B,
               at < behind ? at : at - tagLen);
    return a_->copy(to, 0);
  }
  a_->set(to, 0);
  for (uint32_t i = at; i < at + width; ++i) {
    if (i < tagAt || i >= behind) {
      packetLoad(BPF_ABS, BPF_B, i < tagAt ? i : i - tagLen);
    } else {
      member(0, i < tagAt + 2 ? offsetof(__sk_buff, vlan_proto) : offsetof(__sk_buff, vlan_tci));
      if (i < tagAt + 2) swap16(0);
      if (i % 2 == 0) alu(BPF_RSH, 0, 8);
      alu(BPF_AND, 0, 255);
    }
    alu(BPF_LSH, to, 8);
    a_->by(BPF_OR, to, 0);
  }
}

/// The same at an offset that only the running program knows: compares it with each up to the end
/// of the tag.
void Translation::taggedIndirect(const sock_filter& f, uint32_t width) {
  constexpr uint32_t behind = tagAt + tagLen;
  const size_t done = a_->place(), far = a_->place();
  if (f.k < behind) {
    a_->copy(offset, index);
    alu(BPF_ADD, offset, f.k);
    a_->goIf(BPF_JGE, offset, behind, far);
    for (uint32_t at = f.k; at < behind; ++at) {
      const size_t next = a_->place();
      a_->goIf(BPF_JNE, offset, at, next);
      taggedTo(accumulator, at, width);
      a_->go(done);
      a_->here(next);
    }
    reject();  // which is never reached
  }
  a_->here(far);
  packetLoad(BPF_IND, BPF_SIZE(f.code), f.k - tagLen);
  a_->copy(accumulator, 0);
  a_->here(done);
}

void Translation::arithmetic(const sock_filter& f) {
  const int operation = BPF_OP(f.code);
  const bool byIndex = BPF_SRC(f.code) == BPF_X;
  if (operation == BPF_NEG) return a_->add(BPF_ALU | BPF_NEG, accumulator, 0, 0, 0);
  const bool divides = operation == BPF_DIV || operation == BPF_MOD;
  const bool shifts = operation == BPF_LSH || operation == BPF_RSH;
  if (!byIndex) {
    if (divides && f.k == 0) return reject();
    if (shifts && f.k > 31) return a_->set(accumulator, 0);
    return alu(operation, accumulator, f.k);
  }
  if (divides) rejectIf(BPF_JEQ, index, 0);
  const size_t far = a_->place(), done = a_->place();
  if (shifts) a_->goIf(BPF_JGT, index, 31, far);
  a_->add(BPF_ALU | BPF_X | operation, accumulator, index, 0, 0);
  if (!shifts) return;
  a_->go(done);
  a_->here(far);
  a_->set(accumulator, 0);
  a_->here(done);
}

void Translation::jump(const sock_filter& f, size_t at) {
  if (BPF_OP(f.code) == BPF_JA) return a_->go(placeOf(at + 1 + f.k));
  if (BPF_SRC(f.code) == BPF_X) {
    a_->goIfBy(BPF_OP(f.code), accumulator, index, placeOf(at + 1 + f.jt));
  } else {
    a_->goIf(BPF_OP(f.code), accumulator, f.k, placeOf(at + 1 + f.jt));
  }
  if (f.jf > 0) a_->go(placeOf(at + 1 + f.jf));
}
}  // namespace

std::vector<bpf_insn> extendedProgram(const FilterSource& source, uint32_t snapLen) {
  FilterAssembler a;
  const auto member = [&](int to, size_t at) { a.load(BPF_W, to, packet, static_cast<int>(at)); };
  const size_t accepted = a.place(), counted = a.place(), transport = a.place(), divide = a.place(),
               single = a.place(), done = a.place();
  a.copy(packet, 1);
  // The kernel refuses a program with instructions that can never run.
  if (!Translation(source).write(a, accepted)) return a.finish();
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

}  // namespace agent::flow
