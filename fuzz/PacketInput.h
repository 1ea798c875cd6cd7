#pragma once
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "agent/flow/PacketParser.h"
#include "agent/flow/RecordPlan.h"
#include "platform/Assert.h"

namespace agent::flow {

inline bool sameResult(const Parsed& a, const Parsed& b) {
  if (a.error != b.error) return false;
  if (a.error != ParseError::none) return true;
  return a.ipv6 == b.ipv6 && a.tcpFlags == b.tcpFlags && a.ipOctets == b.ipOctets &&
         a.packets == b.packets && a.repeated() == b.repeated() && a.flowLabel == b.flowLabel &&
         (a.ipv6 ? a.key6 == b.key6 : a.key4 == b.key4);
}

/// Parses an input of the packet fuzzer: packets one after the other, each behind
///
///   1 octet   bits 0-1 the link layer, bit 2 its tag was taken off, bit 3 a minute has passed,
///             bits 4-7 how many segments it is beyond one
///   2 octets  captured length
///   2 octets  what the wire length has beyond it
///   2 octets  the tag, if it was taken off
///
/// Stops the program when what the parser says cannot be.
inline void checkPacketInput(std::span<const uint8_t> rest) {
  PacketParser parser(7, 4);
  PacketParser other(7, 4);
  PacketParser labels(7, 4, true);
  RecordDefinition whole = builtInRecords().at("full");
  whole.fields.emplace_back("layer2SegmentId");
  static const RecordPlan plans[] = {
      {whole, 256}, {whole, 256, Tunnel::inner}, {builtInRecords().at("layer2"), 256}};
  int64_t now = 0;
  while (rest.size() >= 7) {
    const auto u16 = [&](size_t at) { return static_cast<uint16_t>(rest[at] << 8 | rest[at + 1]); };
    Packet p;
    p.link = static_cast<LinkLayer>(rest[0] & 3);
    p.hasVlan = (rest[0] & 4) != 0;
    if (rest[0] & 8) now += 60'000'000'000;
    p.timeNs = now;
    p.capLen = static_cast<uint32_t>(std::min<size_t>(u16(1), rest.size() - 7));
    p.wireLen = p.capLen + u16(3);
    p.vlanTci = p.hasVlan ? u16(5) : 0;
    p.interface = 1;
    p.segments = (rest[0] >> 4) + 1u;
    // A block of its own, so that a read behind its end is seen.
    const std::unique_ptr<uint8_t[]> block(new uint8_t[p.capLen]);
    std::copy_n(rest.begin() + 7, p.capLen, block.get());
    p.octets = block.get();
    rest = rest.subspan(7 + p.capLen);

    Parsed out;
    TARN_ASSERT(parser.parse(p, out) == (out.error == ParseError::none));
    if (out.error == ParseError::none) {
      const uint32_t octets = out.ipOctets - out.repeated();
      TARN_ASSERT(octets >= (out.ipv6 ? 40 : 20) && octets <= p.wireLen);
      TARN_ASSERT(out.packets == p.segments || out.packets == 1);
      TARN_ASSERT(out.repeated() >= (out.packets - 1u) * (out.ipv6 ? 40 : 20));
      TARN_ASSERT(out.flowLabel <= 0xfffff && (out.ipv6 || out.flowLabel == 0));
      const FlowClass& flow = out.ipv6 ? out.key6.rest : out.key4.rest;
      TARN_ASSERT(flow.vlanId <= 0xfff && flow.interface == 1);
      TARN_ASSERT(flow.protocol == 6 || out.tcpFlags == 0);
    }

    // What other records take of it lies within it, too, also behind labels and in tunnels.
    Parsed behindLabels;
    labels.parse(p, behindLabels);
    if (behindLabels.error == ParseError::none || behindLabels.error == ParseError::notIp)
      for (const RecordPlan& plan : plans) {
        PlannedSample sample;
        Parsed counted = behindLabels;
        TunnelFacts tunnel;
        const bool ip = counted.error == ParseError::none;
        if (ip && plan.tunnels()) tunnel = labels.lookInside(p, counted, plan.inner());
        TARN_ASSERT(plan.sample(p, counted, 1, {}, sample, tunnel) == (ip || !plan.tunnels()));
        TARN_ASSERT(!ip || sample.ipOctets == counted.ipOctets);
        if (!ip) continue;
        const bool entered = tunnel.innerAt > 0;
        TARN_ASSERT(entered ? plan.inner() : sameResult(counted, behindLabels));
        TARN_ASSERT(tunnel.innerAt + (counted.ipv6 ? 40 : 20) <= p.capLen || !entered);
        // An inner packet is shorter than the one around it.
        TARN_ASSERT(!entered || counted.ipOctets - counted.repeated() + 20 <=
                                    behindLabels.ipOctets - behindLabels.repeated());
      }

    // The same packet behind a cooked header never takes the short way.
    const std::unique_ptr<uint8_t[]> cooked(new uint8_t[p.capLen + 2]());
    if (p.link == LinkLayer::ethernet && p.capLen >= 14) {
      std::copy_n(p.octets + 12, p.capLen - 12, cooked.get() + 14);
      p.octets = cooked.get();
      p.capLen += 2;
      p.wireLen += 2;
      p.link = LinkLayer::linuxSll;
    }
    Parsed again;
    other.parse(p, again);
    TARN_ASSERT(sameResult(out, again));
  }
}

}  // namespace agent::flow
