#pragma once
#include <sys/socket.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/LinuxPlatform.h"
#include "tests/support/Net.h"

/// The network that benchmarks send into: a namespace of the process's own, and a veth pair to
/// another one, which drops what arrives as a wire takes it away: it is not for an address there.
/// On loopback sockets are bound and never read; what does not fit them is dropped.
namespace bench {
using namespace platform;

constexpr uint32_t payload = 1400;
constexpr size_t ports = 16;
constexpr uint16_t firstPort = 20001;

class Wire {
 public:
  static Wire& get() {
    static Wire wire;
    return wire;
  }
  /// Where collectors are: over the veth pair, or on loopback.
  static IpAddr address(bool veth) { return IpAddr(veth ? 0x0a4d0002 : 0x7f000001); }
  static IpAddr source(bool veth) { return IpAddr(veth ? 0x0a4d0001 : 0x7f000001); }

 private:
  Wire() {
    if (!support::privateNetwork()) throw std::runtime_error("no network namespace permitted");
    peer_ = std::make_unique<support::PeerNamespace>();
    const std::string pid = std::to_string(peer_->pid());
    const std::string farMac = "02:00:00:00:77:02";
    if (!support::sh("ip link add tb0 type veth peer name tb1 netns " + pid) ||
        !support::sh("ip addr add 10.77.0.1/24 dev tb0 && ip link set tb0 up") ||
        !support::sh("ip neigh add 10.77.0.2 dev tb0 nud permanent lladdr " + farMac) ||
        !peer_->sh("ip link set tb1 address " + farMac + " && ip link set tb1 up"))
      throw std::runtime_error("no veth pair");
    for (uint16_t i = 0; i < ports; ++i)
      sinks_.push_back(std::make_unique<support::Receiver>(address(false), std::string(),
                                                           uint16_t(firstPort + i)));
  }
  std::unique_ptr<support::PeerNamespace> peer_;
  std::vector<std::unique_ptr<support::Receiver>> sinks_;
};

class Silent final : public TraceSink, public LogSink {
 public:
  bool enabled(int) const override { return false; }
  void line(int, std::string_view) override {}
  void log(const LogMessage&, std::span<const std::string>) override {}
};

/// A Linux platform that paces nothing unless it is told to, installed.
struct Host {
  explicit Host(size_t segmentsMax = 64, unsigned paceBurst = 0)
      : platform(linuxPlatform(loop, silent, silent,
                               {.paceBurst = paceBurst, .segmentsMax = segmentsMax})) {
    Platform::install(platform.get());
  }
  ~Host() { Platform::install(nullptr); }
  Silent silent;
  Ptr<EventLoop> loop = eventLoopFactory();
  std::unique_ptr<Platform> platform;
};

}  // namespace bench
