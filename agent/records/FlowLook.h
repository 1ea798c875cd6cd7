#pragma once
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace agent {

/// What somebody wants to know of the flows under way of one tracker.
struct FlowLook {
  enum class By : uint8_t { list, flows, hosts, ports, interfaces };
  enum class Order : uint8_t { octets, packets };

  std::string tracker;  ///< empty: the only one that there is
  By by = By::list;     ///< `list`: every flow, in no order; else what the heaviest are of
  Order order = Order::octets;
  size_t count = 20;   ///< how many of the heaviest, at most `countMax`
  std::string filter;  ///< only flows that match; empty: all

  static constexpr size_t countMax = 1000;
};

using FlowValue = std::variant<std::monostate, uint64_t, double, std::string>;
using FlowRow = std::vector<std::pair<std::string, FlowValue>>;  ///< values by name

/// A bounded part of an answer.
struct FlowPart {
  std::string tracker;
  std::vector<FlowRow> rows;
  std::string survey;      ///< for `more`, which has the next part; empty: this is the last
  size_t next = 0;         ///< rows so far, those of this part included
  uint64_t flows = 0;      ///< that were looked at so far
  std::string incomplete;  ///< why the answer is not of all flows; empty: it is
};

/// A look cannot be answered. The text says why, and what would be right.
struct FlowLookError : std::runtime_error {
  /// `code`: of the control socket's answer, see docs/control-socket.md.
  explicit FlowLookError(const std::string& text, const char* code = "badRequest")
      : std::runtime_error(text), code(code) {}
  const char* code;
};

/// The flows under way of the trackers that look at packets. For the agent's thread; nothing here
/// waits. Looking at many flows takes a while, so an answer may have no rows yet: ask for more.
class FlowLooks {
 public:
  virtual ~FlowLooks() = default;
  /// Begins to look. Throws FlowLookError.
  virtual FlowPart look(const FlowLook& look) = 0;
  /// The next part, by `survey` and `next` of the part before. What nobody asks for any more is
  /// forgotten after some seconds. Throws FlowLookError.
  virtual FlowPart more(const std::string& survey, size_t next) = 0;
  /// The interfaces from which a tracker (empty: each) captures at present, by tracker, VRF and
  /// index, with what was counted in flows there since the meter began; at most `max` rows from
  /// `first` on. Throws FlowLookError.
  virtual std::vector<FlowRow> tracked(const std::string& tracker, size_t first, size_t max) = 0;
};

}  // namespace agent
