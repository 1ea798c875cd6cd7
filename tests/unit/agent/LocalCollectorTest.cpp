#include "tests/unit/agent/Devices.h"

namespace agent {
namespace {

TEST_F(DecoderTest, WhatThereIsNoRoomForWaits) {
  hear(message(templates(300, {{1, 8}}) + templates(301, {{82, variable}}) +
               templates(302, {{6, 1}}) + templates(302, std::vector<Field>(257, {1, 8})) +
               set(302, "x")));
  EXPECT_EQ(n().templatesOverLimit, 1u);
  EXPECT_EQ(n().setsWithoutTemplate, 1u) << "what 302 was is no more";
  settle();
  decoder.templates().roomIs(15);
  hear(message(templates(303, {{1, 8}, {2, 8}})));
  EXPECT_EQ(n().templatesWithoutRoom + n().templatesTooLarge, 1u);
  EXPECT_TRUE(published.contains(256) && published.size() == 1) << "the last come off";
}

class CollectorTest : public PassedTest {
 protected:
  CollectorTest() {
    tracker->localPortIs(4739);
    exporter->srcIpAddrIs(here);
    tracker->expConfigIs(exporter);
    hwConfig->ftConfigIs(tracker);
    hwStatus->ftStatusIs(ftStatus);
    network->presentIs(true);
    networks->networkIs(network);
    follow();
    device->modeIs(UdpPam::inService);
  }
  void follow() {
    all->keepOnly(*hwConfig);
    all->follow(*hwConfig, *hwStatus, [this](const std::string& /*name*/) {
      return LocalCollectorSink{[this](TemplateId id, RecordLens lens, std::string_view octets) {
                                  EXPECT_TRUE(ftStatus->templateStatus(id));
                                  pass(lens, octets);
                                },
                                [this] {
                                  flushed = passed.size();
                                  EXPECT_EQ(tellings, 0)
                                      << "a template is withdrawn that nobody was told of";
                                },
                                [] {},
                                [this] { return tellings == 0 || --tellings == 0; },
                                [this] { return queued; },
                                [this] { return sent; }};
    });
  }
  void send(const std::string& datagram, IpAddr from = IpAddr(0x0a000063)) {
    device->txSrcIpAddrIs(from);
    device->txDstIpAddrIs(here);
    device->txPortIs(4739);
    auto pkt = sim->newPkt(static_cast<uint32_t>(datagram.size()));
    pkt->dataWholeIs();
    std::copy(datagram.begin(), datagram.end(), pkt->at(0, pkt->bytes()));
    device->txPktIs(pkt);
    sim->runDue();
  }
  const LocalCollectorCounters& n() const { return all->collector("ft1")->counters(); }

  static constexpr IpAddr here{0x0a000001};
  const std::string example =
      message(templates(300, {{8, 4}, {60, 1}, {1001, 2, 99991}}) + set(300, "aaaa-bb"));
  Heard heard;
  Ptr<NetworkList> networks = networkListFactory();
  Ptr<VrfNetwork> network = vrfNetworkFactory(VrfName(std::string(defaultVrf)));
  Ptr<UdpPam> device = sim->udpPam("device");
  Ptr<SharedTable> table =
      simTableFactory(sizeof(FlowTracking::FlowPathKey), sizeof(FlowTracking::FlowPathRecord), 8);
  std::unique_ptr<LocalCollectors> all = std::make_unique<LocalCollectors>(
      networks, init->elementIdCollection(), sim->scheduler(), heard.log, table);
  FlowExport::Counters sent;
  size_t flushed = 0;
  uint64_t queued = 0;
  int tellings = 0;  // rounds until the collectors have been told
};

TEST_F(CollectorTest, TemplatesComeAndGoWithTheirRecords) {
  send(example);
  EXPECT_EQ(passed, std::vector<std::string>{"aaaabb"});
  EXPECT_EQ(flushed, 0u) << "records gather";
  sim->advance(Seconds(0.1));
  EXPECT_EQ(flushed, 1u);
  send(message(set(300, "aaaa-bb") + templates(300, {{6, 1}})));
  EXPECT_EQ(flushed, 2u) << "records leave before their template is withdrawn";
  tellings = 3;
  send(message(templates(301, {{82, 9}}) + set(301, "interface") + templates(301, {{6, 1}})));
  EXPECT_EQ(flushed, 3u);
  EXPECT_EQ(ftStatus->templateStatus().size(), 1u);

  // What fits depends on the smallest exporter, whichever that is.
  const auto small = HwFlowTracking::exporterConfigFactory("a");
  const auto fit = [this] {
    send(message(templates(300, {{82, 300}}) + templates(301, {{82, 301}})));
    return ftStatus->templateStatus().size();
  };
  tracker->expConfigIs(small);
  for (const uint32_t mtu : {1500, 48 + 20 + 300, 1500, 48 + 20 + 300}) {
    small->ipfixMtuIs(mtu);
    EXPECT_EQ(fit(), mtu == 1500 ? 2u : 1u);
  }
  tracker->expConfigDel("a");
  EXPECT_EQ(fit(), 2u);

  // A tracker that goes takes its templates along; one that takes its place starts with none.
  const auto other = HwFlowTracking::ftConfigFactory("ft1", 8);
  other->localPortIs(4739);
  other->expConfigIs(exporter);
  hwConfig->ftConfigIs(other);
  follow();
  EXPECT_TRUE(ftStatus->templateStatus().empty());
  send(message(set(300, "aaaa-bb")));
  EXPECT_EQ(n().setsWithoutTemplate, 1u);
}

// Each record that is not passed on, or passed on and not sent, is in the shared table and told.
TEST_F(CollectorTest, WhatDoesNotLeaveIsCounted) {
  send(example);
  send(message(templates(301, {{60, 1}}) + set(301, "abcd") + set(999, "aaaa")));
  send("no message");
  // The device's endpoint stands for the tracker's exporter: its records would come round again.
  exporter->rxPort4Is(device->rxPort());
  send(message(set(300, "aaaa")), here);
  exporter->rxPort4Is(static_cast<uint16_t>(device->rxPort() + 1));
  send(message({}), here);  // a device at this address
  sent.recordsLost = 5;
  sim->advance(Seconds(1));
  const FlowTracking::FlowPathKey key("ft1");
  FlowTracking::FlowPathRecord r;
  ASSERT_TRUE(
      table->get(std::as_bytes(std::span(&key, 1)), std::as_writable_bytes(std::span(&r, 1))));
  EXPECT_EQ((std::array{r.recordsLost, r.deviceMessages, r.deviceRecords, r.deviceRecordsRefused,
                        r.deviceSetsUnknown, r.deviceDatagramsBad, r.deviceDatagramsLooped}),
            (std::array<uint64_t, 7>{5, 3, 5, 4, 1, 1, 1}));
  hwConfig->ftConfigDel("ft1");
  follow();
  EXPECT_TRUE(heard.has("1 datagrams of exporters of tracker ft1 that would come round for ever"));
  EXPECT_EQ(table->size(), 0u);
}

TEST_F(CollectorTest, ReadsNoFasterThanRecordsLeave) {
  // Sends so many, and returns how many were read in all a second later.
  const auto read = [this](int count, uint64_t waiting) {
    queued = waiting;
    for (int i = 0; i < count; ++i) send(example);
    sim->advance(Seconds(1));
    return n().messages;
  };
  constexpr uint64_t most = LocalCollector::queuedMax;
  EXPECT_EQ(read(2, most), 2u);
  EXPECT_EQ(read(6, most + 1), 3u) << "enough for now";
  EXPECT_EQ(read(0, most / 2 + 1), 3u);
  EXPECT_EQ(read(0, most / 2), 8u) << "what waited is read";
  // An endpoint that comes meanwhile does not hear earlier either.
  EXPECT_EQ(read(1, most + 1), 9u);
  exporter->srcIpAddrIs({});
  sim->advance(Seconds(1));
  exporter->srcIpAddrIs(here);
  sim->advance(Seconds(0.01));
  EXPECT_EQ(read(1, most + 1), 9u);
  EXPECT_EQ(read(0, 0), 10u);
}

TEST(LocalCollectorLoops, AreFoundHoweverLong) {
  Random pick;
  LocalCollectorLoops loops;
  std::map<uint32_t, std::set<uint32_t>> hears;  // directly or not
  for (int round = 0; round < 3000; ++round) {
    const uint32_t to = round < 6 ? round : pick(6);
    const std::string name = std::to_string(to);
    if (round < 6 || pick(50) == 0) {  // its exporter is there anew: all may be different now
      const auto config = HwFlowTracking::ftConfigFactory(name, to);
      const auto exporter = HwFlowTracking::exporterConfigFactory("main");
      exporter->srcIpAddrIs(IpAddr(1 + to));
      exporter->rxPort4Is(static_cast<uint16_t>(1 + to));
      config->expConfigIs(exporter);
      loops.exportersAre(name, *config);
      hears.clear();
      continue;
    }
    const uint32_t from = pick(6);
    const bool closes = from == to || hears[from].contains(to);
    if (!closes)
      for (uint32_t n = 0; n < 6; ++n)
        if (n == to || hears[n].contains(to)) {
          hears[n].insert(from);
          hears[n].insert(hears[from].begin(), hears[from].end());
        }
    const IpAddr address(1 + from);
    ASSERT_EQ(loops.closedBy(name, address, static_cast<uint16_t>(1 + from)),
              closes ? std::to_string(from) : "");
    ASSERT_EQ(loops.closedBy(name, address, 4739), "") << "a device there";
  }
}

}  // namespace
}  // namespace agent
