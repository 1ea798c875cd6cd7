#pragma once
#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/Ring.h"
#include "platform/Trace.h"
#include "platform/UdpPam.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/Fd.h"
#include "platform/linux/LinuxPlatformOptions.h"
#include "platform/linux/OwnPorts.h"
#include "platform/linux/Pacer.h"
#include "platform/linux/SendErrors.h"
#include "platform/linux/UdpMessages.h"

namespace platform {

/// See UdpPamLinux.h. The sending half is in UdpPamSend.cpp, the rest in UdpPamLinux.cpp.
class UdpPamLinux final : public UdpPam {
 public:
  UdpPamLinux(const std::string& name, Ptr<EventLoop> loop, TraceSink& trace,
              const LinuxPlatformOptions& options);
  ~UdpPamLinux() override { close(); }

  const std::string& name() const override { return name_; }
  void netNsIs(const NamespaceName& ns) override { netNs_ = ns; }
  void ipv6EnIs(bool on) override { ipv6En_ = on; }
  void txPrioIs(uint8_t prio) override { txPrio_ = prio; }
  void rxIpAddrIs(IpAddr addr) override { rx4_ = addr; }
  void rxIp6AddrIs(const Ip6Addr& addr) override { rx6_ = addr; }
  void rxPortIs(uint16_t port) override { rxPort_ = port; }
  void modeIs(Mode mode) override {
    if (mode == this->mode()) return;
    if (mode == inService) {
      open();
    } else {
      close();
    }
  }
  Mode mode() const override { return socket_ ? inService : outOfService; }
  uint8_t txPrio() const override { return txPrio_; }
  uint16_t rxPort() const override { return socket_ ? boundPort_ : rxPort_; }
  int fd() const override { return socket_.get(); }

  void txSrcIpAddrIs(IpAddr addr) override { addressingIs(src4_, addr); }
  void txSrcIp6AddrIs(const Ip6Addr& addr) override { addressingIs(src6_, addr); }
  void txDstIpAddrIs(IpAddr addr) override { addressingIs(dst4_, addr); }
  void txDstIp6AddrIs(const Ip6Addr& addr) override { addressingIs(dst6_, addr); }
  void txPortIs(uint16_t port) override { addressingIs(txPort_, port); }
  void txTosIs(uint8_t tos) override { addressingIs(tos_, tos); }
  void txRateLimitIs(const RateLimit& limit) override;
  void txPktIs(const Ptr<Pkt>& pkt) override;
  void txDstDel(const IpGenAddr& addr, uint16_t port) override;
  void rxPktHandlerIs(RxPktHandler handler) override;

  const UdpPamCounters& counters() const override { return counters_; }
  AttrRows attrRows() const override {
    using P = UdpPamLinux;
    static constexpr AttrRow rows[] = {
        row<&P::name>("name"),         row<&P::fd>("fd"),
        row<&P::rxPort>("rxPort"),     row<&P::txPrio>("txPrio"),
        row<&P::sent>("sent"),         row<&P::sentOctets>("sentOctets"),
        row<&P::sends>("sends"),       row<&P::dropped>("dropped"),
        row<&P::queued>("queued"),     row<&P::queuedMax>("queuedMax"),
        row<&P::received>("received"), row<&P::rxDropped>("rxDropped")};
    return rows;
  }

 private:
  uint64_t sent() const { return counters_.sent; }
  uint64_t sentOctets() const { return counters_.sentOctets; }
  uint64_t sends() const { return counters_.sends; }
  uint64_t dropped() const { return counters_.dropped; }
  uint64_t queued() const { return counters_.queued; }
  uint64_t queuedMax() const { return counters_.queuedMax; }
  uint64_t received() const { return counters_.received; }
  uint64_t rxDropped() const { return counters_.rxDropped; }

  void open();
  void close();
  void flush();
  bool sendSome(bool moreComes = false);
  void handleEvents(uint32_t events);
  void watchWhatMatters();
  void enlargeRxBuffer();
  void receive();
  bool readSome();
  void countRxDrops();
  void traceLine(const std::string& text) {
    if (trace_.enabled(TraceLevel::error)) trace_.line(TraceLevel::error, name_ + ": " + text);
  }
  [[gnu::noinline]] bool readyFor(const Pkt& pkt);
  [[gnu::noinline]] void arrangeSending();
  template <class T>
  void addressingIs(T& attr, const T& value) {
    if (attr == value) return;
    attr = value;
    wayChanged_ = true;
  }
  const Way& wayOf(const Datagram& d) const { return ways_[d.way - firstWay_]; }
  const Pace& pace() const { return limit_ ? *limit_ : defaultPace_; }
  size_t allowedByPace(size_t most);
  size_t segmentsMaxOf(const Datagram& first) const;
  size_t fill(TxRoom& room, bool moreComes);
  void tosIs(uint8_t tos);
  void purge();
  void popFront(size_t n = 1);
  void taken(size_t n, uint64_t octets);

  const std::string name_;
  const Ptr<EventLoop> loop_;
  TraceSink& trace_;
  const std::string netnsDir_;
  const size_t queueMax_;
  const size_t sendAt_;
  const Pace defaultPace_;
  const size_t segmentsMax_;
  const int rxBufferSize_;

  NamespaceName netNs_;
  bool ipv6En_ = false;
  uint8_t txPrio_ = 0;
  IpAddr rx4_;
  Ip6Addr rx6_;
  uint16_t rxPort_ = 0;

  Fd socket_;
  bool socketIpv6_ = false;
  uint16_t boundPort_ = 0;
  std::optional<OwnPorts::Use> ownPort_;
  std::unique_ptr<EventLoop::FdWatch> watch_;
  uint8_t socketTos_ = 0;
  bool full_ = false;  // the socket has no room; EPOLLOUT is awaited
  bool closing_ = false;
  std::optional<Pace> limit_;  // in place of the host's own choice
  Pacer pacer_;
  // To these a segmented send was refused: datagrams that go one by one until the next try.
  std::map<Destination, unsigned> unsegmented_;

  IpAddr src4_;
  Ip6Addr src6_;
  IpAddr dst4_;
  Ip6Addr dst6_;
  uint16_t txPort_ = 0;
  uint8_t tos_ = 0;

  bool wayChanged_ = true;  // since the last datagram, or there is no socket

  Ring<Datagram> queue_;
  uint64_t accepted_ = 0;  // datagrams that were ever queued
  // What is not sent any more: to these, of the datagrams up to that number.
  std::map<Destination, uint64_t> gone_;
  Ring<Way> ways_;                   // of those in the queue, and of the last one
  uint32_t firstWay_ = 0;            // the number of the first of them
  std::unique_ptr<TimerTask> rest_;  // goes on where a flush stopped at its bound
  const std::unique_ptr<EventLoop::EndHook> endOfTask_;  // flushes
  bool hooked_ = false;                                  // it is asked for
  UdpPamCounters counters_;
  SendErrors errors_{counters_, [this](const std::string& text) { traceLine(text); }};
  uint64_t overflow_ = 0;  // dropped since the queue was last empty

  std::shared_ptr<const RxPktHandler> rxHandler_;  // shared with the call under way
  std::unique_ptr<RxRoom> rxRoom_;                 // made with the first handler
  size_t rxAt_ = 0;                                // of those in it, the next to hand on
  size_t rxCount_ = 0;                             // how many are in it
  const std::unique_ptr<TimerTask> rxRest_;        // goes on where the share was used up
  uint32_t socketRxDrops_ = 0;                     // the kernel's count for this socket
  uint64_t opening_ = 0;                           // tells one socket from the next
};

}  // namespace platform
