#pragma once
#include <cstdint>
#include <cstring>
#include <utility>

#include "agent/flow/FlowKey.h"
#include "agent/flow/FlowTable.h"

namespace agent::flow {

/// What one packet says of the conversation that it belongs to.
struct Conversation {
  bool turned = false;  ///< it came from what is the destination in the conversation's key
  bool answer = false;  ///< its receiver began the conversation
  bool sure = true;     ///< false: TCP without SYN, which does not show who began it
};

/// The type of ICMP request that this type answers; itself when it answers none. (RFC 792, RFC 950,
/// RFC 4443)
inline uint32_t icmpRequest(bool ipv6, uint32_t type) {
  constexpr uint32_t echoReply = 0, echo = 8, echoReply6 = 129, echo6 = 128;
  if (ipv6) return type == echoReply6 ? echo6 : type;
  if (type == echoReply) return echo;
  return type == 14 || type == 16 || type == 18 ? type - 1 : type;  // timestamp, information, mask
}

/// Makes a packet's key the one that both directions have: the lesser of (address, port) is the
/// source, and an answer of ICMP has the type of its request. Since the destination port of ICMP is
/// type and code, and the source port 0, messages that nobody answers are conversations of one
/// direction.
template <class Key>
Conversation orient(Key& key, uint8_t tcpFlags) {
  constexpr bool ipv6 = Key::ipLen == 16;
  constexpr uint8_t tcp = 6, icmp = ipv6 ? 58 : 1;
  Conversation c;
  FlowClass& rest = key.rest;
  if (rest.protocol == tcp) {
    c.sure = (tcpFlags & tcpSyn) != 0;
    c.answer = c.sure && (tcpFlags & tcpAck) != 0;
  } else if (rest.protocol == icmp) {
    const uint32_t type = rest.dstPort >> 8;
    const uint32_t request = icmpRequest(ipv6, type);
    c.answer = c.turned = request != type;
    rest.dstPort = static_cast<uint16_t>(request << 8 | (rest.dstPort & 0xff));
    if (c.answer) std::swap(key.src, key.dst);
  }
  const int order = std::memcmp(key.src.data(), key.dst.data(), Key::ipLen);
  if (order > 0 || (order == 0 && rest.srcPort > rest.dstPort)) {
    std::swap(key.src, key.dst);
    std::swap(rest.srcPort, rest.dstPort);
    c.turned = !c.turned;
  }
  return c;
}

}  // namespace agent::flow
