#include "tests/unit/platform/Host.h"

#include <algorithm>

#include "platform/linux/LinuxPlatform.h"
#include "tests/support/Net.h"
#include "tests/unit/platform/Sinks.h"

using namespace platform;

namespace {

class SimHost final : public Host {
 public:
  Platform& platform() override { return *sim_; }
  Ptr<TaskScheduler> scheduler() override { return sim_->scheduler(); }
  void pass(Seconds d) override { sim_->advance(d); }
  uint16_t sinkPort(bool, int i) override { return static_cast<uint16_t>(4739 + i); }
  std::vector<SimDatagram> received(size_t) override {
    auto all = sim_->takeSent();
    std::ranges::stable_sort(all, {}, &SimDatagram::dstPort);
    return all;
  }

 private:
  const std::unique_ptr<SimPlatform> sim_ = simPlatform();
};

class LinuxHost final : public Host {
 public:
  Platform& platform() override { return *platform_; }
  Ptr<TaskScheduler> scheduler() override { return loop_->taskScheduler(); }
  void pass(Seconds d) override {
    bool over = false;
    auto end = scheduler()->timerTask("end", 255, [&] { over = true; });
    end->scheduleIs(d);
    while (!over) loop_->runOnce(Seconds(1));
    loop_->runOnce(Seconds(0));  // what the last round left
  }
  uint16_t sinkPort(bool ipv6, int i) override {
    auto& r = receivers_[static_cast<size_t>(ipv6 ? i + 2 : i)];
    if (!r)
      r = std::make_unique<support::Receiver>(
          *IpGenAddr::fromString(ipv6 ? "2001:db8::1" : "10.99.0.1"));
    return r->port();
  }
  std::vector<SimDatagram> received(size_t n) override {
    std::vector<SimDatagram> out;
    for (int patience = 20; patience > 0; --patience) {
      for (auto& r : receivers_) {
        while (r) {
          auto d = r->next(out.size() < n ? 50 : 0);
          if (!d) break;
          out.push_back({.endpoint = {},
                         .src = d->src,
                         .dst = d->dst,
                         .srcPort = d->srcPort,
                         .dstPort = r->port(),
                         .tos = static_cast<uint8_t>(d->tos),

                         .time = 0,
                         .octets = std::move(d->octets)});
        }
      }
      if (out.size() >= n) break;
    }
    std::ranges::stable_sort(out, {}, &SimDatagram::dstPort);
    return out;
  }

 private:
  Lines trace_;
  NoLog log_;
  const Ptr<EventLoop> loop_ = eventLoopFactory();
  const std::unique_ptr<Platform> platform_ = linuxPlatform(loop_, trace_, log_, {.paceBurst = 0});
  std::array<std::unique_ptr<support::Receiver>, 4> receivers_;
};

}  // namespace

std::unique_ptr<Host> simHost() { return std::make_unique<SimHost>(); }
std::unique_ptr<Host> linuxHost() { return std::make_unique<LinuxHost>(); }
