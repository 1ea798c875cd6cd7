#include "agent/settings/PacketExpression.h"

#include <arpa/inet.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <regex>
#include <string_view>

#include "agent/host/Printable.h"

namespace agent {
namespace {
// By LinkLayer.
constexpr int linkTypes[] = {DLT_EN10MB, DLT_RAW, DLT_LINUX_SLL, DLT_LINUX_SLL2};
constexpr int longestPacket = 262144;  // octets

// The words of the language. Its compiler takes other words for names, and may ask a name server
// about them.
constexpr std::string_view words[] = {"aarp",
                                      "ah",
                                      "and",
                                      "arp",
                                      "atalk",
                                      "broadcast",
                                      "byte",
                                      "carp",
                                      "clnp",
                                      "csnp",
                                      "decnet",
                                      "dst",
                                      "es-is",
                                      "esis",
                                      "esp",
                                      "ether",
                                      "geneve",
                                      "greater",
                                      "host",
                                      "icmp",
                                      "icmp-echo",
                                      "icmp-echoreply",
                                      "icmp-ireq",
                                      "icmp-ireqreply",
                                      "icmp-maskreply",
                                      "icmp-maskreq",
                                      "icmp-paramprob",
                                      "icmp-redirect",
                                      "icmp-routeradvert",
                                      "icmp-routersolicit",
                                      "icmp-sourcequench",
                                      "icmp-timxceed",
                                      "icmp-tstamp",
                                      "icmp-tstampreply",
                                      "icmp-unreach",
                                      "icmp6",
                                      "icmp6-destinationunreach",
                                      "icmp6-echo",
                                      "icmp6-echoreply",
                                      "icmp6-multicastlistenerdone",
                                      "icmp6-multicastlistenerquery",
                                      "icmp6-multicastlistenerreportv1",
                                      "icmp6-multicastlistenerreportv2",
                                      "icmp6-neighboradvert",
                                      "icmp6-neighborsolicit",
                                      "icmp6-packettoobig",
                                      "icmp6-parameterproblem",
                                      "icmp6-redirect",
                                      "icmp6-routeradvert",
                                      "icmp6-routersolicit",
                                      "icmp6-timeexceeded",
                                      "icmp6code",
                                      "icmp6type",
                                      "icmpcode",
                                      "icmptype",
                                      "igmp",
                                      "igrp",
                                      "iih",
                                      "ip",
                                      "ip6",
                                      "ipx",
                                      "is-is",
                                      "isis",
                                      "iso",
                                      "l1",
                                      "l2",
                                      "lat",
                                      "len",
                                      "length",
                                      "less",
                                      "link",
                                      "lsp",
                                      "mask",
                                      "mopdl",
                                      "moprc",
                                      "mpls",
                                      "multicast",
                                      "net",
                                      "netbeui",
                                      "not",
                                      "or",
                                      "pim",
                                      "port",
                                      "portrange",
                                      "pppoed",
                                      "pppoes",
                                      "proto",
                                      "psnp",
                                      "rarp",
                                      "sca",
                                      "sctp",
                                      "snp",
                                      "src",
                                      "stp",
                                      "tcp",
                                      "tcp-ack",
                                      "tcp-cwr",
                                      "tcp-ece",
                                      "tcp-fin",
                                      "tcp-push",
                                      "tcp-rst",
                                      "tcp-syn",
                                      "tcp-urg",
                                      "tcpflags",
                                      "udp",
                                      "vlan",
                                      "vrrp"};

/// Whether it is a number, an IPv4 address or the beginning of one, a MAC address in one
/// of its notations, or an IPv6 address.
bool isNumeric(const std::string& word, const std::string& before) {
  static const std::regex numbers(
      "[0-9]+|0[xX][0-9a-fA-F]+|[0-9]+(\\.[0-9]+){1,3}|"
      "[0-9a-fA-F]{1,2}([:.-])[0-9a-fA-F]{1,2}(\\2[0-9a-fA-F]{1,2}){4}|"
      "[0-9a-fA-F]{4}(\\.[0-9a-fA-F]{4}){2}|[0-9a-fA-F]{12}");
  static const std::regex range("[0-9]+-[0-9]+");
  in6_addr address;
  return (before == "portrange" && std::regex_match(word, range)) ||
         std::regex_match(word, numbers) || inet_pton(AF_INET6, word.c_str(), &address) == 1;
}

/// The first word that would be looked up, or nothing.
std::string nameIn(const std::string& text) {
  int brackets = 0;
  std::string before;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto inWord = [&](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             c == '.' || c == '_' || c == '-' || (c == ':' && brackets == 0);
    };
    if (text[i] == '[') ++brackets;
    if (text[i] == ']') --brackets;
    if (!inWord(text[i]) || text[i] == '-') continue;  // operators
    const size_t end = static_cast<size_t>(
        std::find_if_not(text.begin() + static_cast<std::ptrdiff_t>(i), text.end(), inWord) -
        text.begin());
    std::string word = text.substr(i, end - i);
    if (!std::binary_search(std::begin(words), std::end(words), word) && !isNumeric(word, before))
      return word;
    before = std::move(word);
    i = end - 1;
  }
  return {};
}

std::string textProblem(const std::string& text) {
  if (text.size() > packetExpressionMax)
    return "it has " + std::to_string(text.size()) + " octets, and may have " +
           std::to_string(packetExpressionMax);
  if (std::any_of(text.begin(), text.end(), [](char c) {
        return c == '\\' || c == 0x7f || (c >= 0 && c < ' ' && c != '\n' && c != '\t');
      }))
    return "it has a control character or a backslash, which are not allowed: give protocols as "
           "numbers";
  if (const std::string name = nameIn(text); !name.empty())
    return '\'' + printable(name, 80) +
           "' is no word of the language, and names are not looked up: give addresses, ports and "
           "protocols as numbers";
  return {};
}

/// Why the kernel could not run the program, or nothing.
std::string programProblem(const std::vector<sock_filter>& code) {
  for (size_t i = 0; i < code.size(); ++i) {
    if (code[i].code == (BPF_JMP | BPF_JA) && code[i].k >= code.size() - i)
      return "it needs a loop, as 'protochain' does, and the kernel runs none";
    if (loadsPacket(code[i]) && code[i].k > packetOffsetMax)
      return "it looks at octet " + std::to_string(code[i].k) + ", and no packet is so long";
  }
  return {};
}
}  // namespace

bool loadsPacket(const sock_filter& f) {
  const int kind = BPF_CLASS(f.code) | BPF_MODE(f.code);
  return kind == (BPF_LD | BPF_ABS) || kind == (BPF_LD | BPF_IND) || kind == (BPF_LDX | BPF_MSH);
}

PacketProgram compilePacketExpression(const std::string& text, LinkLayer link) {
  PacketProgram result;
  result.problem = textProblem(text);
  if (!result.problem.empty()) return result;
  const std::unique_ptr<pcap_t, void (*)(pcap_t*)> handle(
      pcap_open_dead(linkTypes[static_cast<size_t>(link)], longestPacket), pcap_close);
  if (!handle) throw std::bad_alloc();
  bpf_program program{};
  if (pcap_compile(handle.get(), &program, text.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
    const std::string_view why = pcap_geterr(handle.get());
    // An expression for Ethernet may well choose nothing elsewhere: "arp".
    if (why == "expression rejects all packets" && link != LinkLayer::ethernet)
      result.code = {{BPF_RET | BPF_K, 0, 0, 0}};
    else
      result.problem = printable(why, 300);
    return result;
  }
  static_assert(sizeof(sock_filter) == sizeof(bpf_insn));
  result.code.resize(program.bf_len);
  std::memcpy(result.code.data(), program.bf_insns, program.bf_len * sizeof(bpf_insn));
  pcap_freecode(&program);
  result.problem = programProblem(result.code);
  if (!result.problem.empty()) result.code.clear();
  return result;
}

bool chooses(const std::vector<sock_filter>& program, const Packet& packet) {
  return bpf_filter(reinterpret_cast<const bpf_insn*>(program.data()), packet.octets,
                    packet.wireLen, packet.capLen) != 0;
}

}  // namespace agent
