#pragma once
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/flow/RecordView.h"

namespace agent::flow {

/// Chooses flows by a text such as "host 192.0.2.0/24 and port 53": terms joined by "and", each
/// `host ADDRESS[/LENGTH]`, `port N`, `protocol NAME|N`, `interface NAME` or `vrf NAME`. A host,
/// port or interface may be at either end of the flow.
class FlowFilter {
 public:
  /// The exported index of the interface of this name, if there is one.
  using IndexOf = std::function<std::optional<uint32_t>(const std::string& name)>;

  /// An empty text chooses all flows. Throws FlowLookError: what is wrong, and what is allowed.
  FlowFilter(std::string_view text, const IndexOf& indexOf);

  /// What a term needs and no layout has, such as "ports"; empty: nothing is missing.
  std::string missing(const std::vector<RecordView>& layouts) const;
  /// A VRF that a term names and `among` has not; empty: there is none.
  std::string vrfNotIn(const std::set<std::string>& among) const;
  bool matches(const RecordView& view, const char* record, const std::string& vrf) const;

 private:
  struct Term {
    enum Kind : uint8_t { host, port, protocol, interface, vrf } kind;
    uint64_t number = 0;  // a prefix length in bits, a port, a protocol or an interface's index
    size_t addressLen = 0;
    std::array<char, 16> address{};
    std::string name = {};
  };
  static Term term(const std::string& kind, const std::string& value, const IndexOf& indexOf);
  static bool matches(const Term& term, const RecordView& view, const char* record);

  std::vector<Term> terms_;
};

}  // namespace agent::flow
