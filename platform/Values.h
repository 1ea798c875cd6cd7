#pragma once
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/Api.h"

namespace platform {

/// A name of at most `Tag::maxLength` octets. The constructor raises std::range_error with the text
/// `Tag::tooLong` for a longer one; `fromString` returns nothing.
template <class Tag>
class BoundedName {
 public:
  static constexpr size_t maxLength = Tag::maxLength;
  BoundedName() = default;
  explicit BoundedName(std::string value) : value_(std::move(value)) {
    if (value_.size() > maxLength) throw std::range_error(Tag::tooLong);
  }
  const std::string& stringValue() const { return value_; }
  static std::optional<BoundedName> fromString(std::string_view s) {
    if (s.size() > maxLength) return std::nullopt;
    return BoundedName(std::string(s));
  }
  bool empty() const { return value_.empty(); }
  auto operator<=>(const BoundedName&) const = default;

 private:
  std::string value_;
};

struct VrfNameTag {
  static constexpr size_t maxLength = 100;
  static constexpr const char* tooLong = "VrfName::value::bytes > VrfName::maxLength not allowed";
};
/// A VRF's name, at most 100 octets; "default" is the namespace that the agent started in.
using VrfName = BoundedName<VrfNameTag>;

struct NamespaceNameTag {
  static constexpr size_t maxLength = 150;
  static constexpr const char* tooLong = "NamespaceName::value::bytes > 150 not allowed";
};
/// A network namespace's name, at most 150 octets; empty is the namespace the agent started in.
using NamespaceName = BoundedName<NamespaceNameTag>;

/// The VRF of the namespace that the agent started in.
inline constexpr std::string_view defaultVrf = "default";

/// "ns-<vrf>", or the empty name for the default VRF.
inline NamespaceName namespaceOf(const VrfName& vrf) {
  if (vrf.empty() || vrf.stringValue() == defaultVrf) return {};
  return NamespaceName("ns-" + vrf.stringValue());
}

/// Differentiated services code point, 0..63 (RFC 2474); anything larger raises std::range_error.
class DscpValue {
 public:
  static constexpr uint8_t max = 63;
  constexpr DscpValue() = default;
  constexpr explicit DscpValue(unsigned value) : value_(static_cast<uint8_t>(value)) {
    if (value > max) throw std::range_error("DscpValue::value > DscpValue::max not allowed");
  }
  constexpr uint8_t value() const { return value_; }
  /// The TOS or traffic class octet: the code point above two zero ECN bits.
  constexpr uint8_t tos() const { return static_cast<uint8_t>(value_ << 2); }
  std::string stringValue() const { return std::to_string(value_); }
  static std::optional<DscpValue> fromString(std::string_view s) {
    unsigned v = 0;
    for (const char c : s) {
      if (c < '0' || c > '9') return std::nullopt;
      v = v * 10 + static_cast<unsigned>(c - '0');
      if (v > max) return std::nullopt;
    }
    if (s.empty()) return std::nullopt;
    return DscpValue(v);
  }
  auto operator<=>(const DscpValue&) const = default;

 private:
  uint8_t value_ = 0;
};

/// An interface: `eth0` in the default namespace, `<vrf>/eth0` elsewhere.
class IntfId {
 public:
  IntfId() = default;
  explicit IntfId(std::string name) : name_(std::move(name)) {}
  const std::string& stringValue() const { return name_; }
  static std::optional<IntfId> fromString(std::string_view s) { return IntfId(std::string(s)); }
  auto operator<=>(const IntfId&) const = default;

 private:
  std::string name_;
};

using VrfId = uint32_t;  ///< exported as ingressVRFID

}  // namespace platform

namespace FlowTracking {
using TemplateId = uint16_t;  ///< set and template id: 2, 3, or 256 and above for data sets
using FtId = uint32_t;        ///< flow tracker id, and the observation domain id of its messages
}  // namespace FlowTracking

template <>
struct std::hash<platform::IntfId> {
  size_t operator()(const platform::IntfId& i) const noexcept {
    return std::hash<std::string>{}(i.stringValue());
  }
};
