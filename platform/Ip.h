#pragma once
#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Api.h"

namespace platform {

/// IPv4 address; `value` in host byte order (10.0.0.1 is 0x0a000001). Default: 0.0.0.0.
class TARN_API IpAddr {
 public:
  constexpr IpAddr() = default;
  constexpr explicit IpAddr(uint32_t value) : value_(value) {}
  static constexpr IpAddr ipAddrZero() { return IpAddr(); }
  constexpr uint32_t value() const { return value_; }
  constexpr bool isZero() const { return value_ == 0; }
  std::string stringValue() const;  ///< dotted decimal
  static std::optional<IpAddr> fromString(std::string_view text);
  auto operator<=>(const IpAddr&) const = default;

 private:
  uint32_t value_ = 0;
};

/// IPv6 address, octets in network order. Default: the unspecified address.
class TARN_API Ip6Addr {
 public:
  using Octets = std::array<uint8_t, 16>;
  constexpr Ip6Addr() = default;
  constexpr explicit Ip6Addr(const Octets& octets) : octets_(octets) {}
  constexpr const Octets& octets() const { return octets_; }
  constexpr bool isZero() const { return octets_ == Octets{}; }
  /// fe80::/10: valid on one link only, so never a source towards a collector.
  constexpr bool isLinkLocal() const { return octets_[0] == 0xfe && (octets_[1] & 0xc0) == 0x80; }
  std::string stringValue() const;  ///< RFC 5952
  static std::optional<Ip6Addr> fromString(std::string_view text);
  auto operator<=>(const Ip6Addr&) const = default;

 private:
  Octets octets_{};
};

/// An address of either family. Ordered by family (IPv4 first), then address.
class TARN_API IpGenAddr {
 public:
  enum class Family : uint8_t { none = 0, ipv4 = 4, ipv6 = 6 };
  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(IpAddr a) : family_(Family::ipv4), v4_(a) {}
  constexpr IpGenAddr(const Ip6Addr& a) : family_(Family::ipv6), v6_(a) {}
  constexpr Family family() const { return family_; }
  constexpr bool isIpv4() const { return family_ == Family::ipv4; }
  constexpr bool isIpv6() const { return family_ == Family::ipv6; }
  /// The address of the family named; zero when this is of the other one.
  constexpr IpAddr ipAddr() const { return v4_; }
  constexpr const Ip6Addr& ip6Addr() const { return v6_; }
  std::string stringValue() const;  ///< the address's own form; empty for none
  static std::optional<IpGenAddr> fromString(std::string_view text);
  auto operator<=>(const IpGenAddr&) const = default;

 private:
  Family family_ = Family::none;
  IpAddr v4_;
  Ip6Addr v6_;
};

/// A UDP destination or source: address and port (host byte order).
struct TARN_API IpAndPort {
  IpAddr addr;
  uint16_t port = 0;
  std::string stringValue() const;  ///< 10.0.0.1:4739
  static std::optional<IpAndPort> fromString(std::string_view text);
  auto operator<=>(const IpAndPort&) const = default;
};
struct TARN_API Ip6AndPort {
  Ip6Addr addr;
  uint16_t port = 0;
  std::string stringValue() const;  ///< [2001:db8::1]:4739
  static std::optional<Ip6AndPort> fromString(std::string_view text);
  auto operator<=>(const Ip6AndPort&) const = default;
};

}  // namespace platform
