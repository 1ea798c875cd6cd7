#pragma once
#include <linux/bpf.h>

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace agent::flow {

/// Writes programs of the extended machine. Jumps lead to places: `place` returns the number of a
/// new one, and `here` puts it before the instruction that is written next.
class FilterAssembler {
 public:
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
  // With 64 bits: an operation with a number, and with another register.
  void with(int operation, int to, uint32_t k) { add(BPF_ALU64 | BPF_K | operation, to, 0, 0, k); }
  void by(int operation, int to, int from) { add(BPF_ALU64 | BPF_X | operation, to, from, 0, 0); }
  /// `width`: BPF_W, BPF_H or BPF_B.
  void load(int width, int to, int base, int offset) {
    add(BPF_LDX | BPF_MEM | width, to, base, offset, 0);
  }
  void call(uint32_t function) { add(BPF_JMP | BPF_CALL, 0, 0, 0, function); }
  void go(size_t place) { jumpTo(BPF_JMP | BPF_JA, 0, 0, 0, place); }
  /// Compares 32 bits; `goIfBy` compares 64.
  void goIf(int operation, int reg, uint32_t k, size_t place) {
    jumpTo(BPF_JMP32 | BPF_K | operation, reg, 0, k, place);
  }
  void goIfBy(int operation, int reg, int other, size_t place) {
    jumpTo(BPF_JMP | BPF_X | operation, reg, other, 0, place);
  }
  void end() { add(BPF_JMP | BPF_EXIT, 0, 0, 0, 0); }
  size_t place() { return at_.emplace_back(), at_.size() - 1; }
  void here(size_t place) { at_[place] = code_.size(); }

  /// The program. Empty: it is longer than a jump can reach.
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

}  // namespace agent::flow
