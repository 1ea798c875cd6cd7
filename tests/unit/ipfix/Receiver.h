#pragma once
#include <map>
#include <string>
#include <vector>

#include "Tree.h"
#include "cli/wire/decoder/Decoder.h"

/// A collector of the tests: decodes what arrives and keeps each sender's tables as it was told
/// them.
namespace FlowTracking {

constexpr TemplateId vrfTable = 65280;
constexpr TemplateId intfTable = 65281;
constexpr TemplateId flowKeyTable = 65282;
constexpr TemplateId trackerTable = 65283;

/// The four tables: by template id, the key field's octets to the other fields' octets.
using Table = std::map<std::string, std::string>;
using Picture = std::map<uint16_t, Table>;

/// The octets of an integer as they stand in a record.
inline std::string netOctets(uint64_t v, size_t n) {
  std::string out;
  for (size_t i = n; i-- > 0;) out += static_cast<char>(v >> (8 * i));
  return out;
}

class Receiver {
 public:
  /// Takes one datagram; faults of any kind are test failures.
  void take(const Seen& seen) {
    const std::string to = seen.datagram.endpoint + " > " + seen.to();
    const auto m = decoder_.decode(to + " from " + std::to_string(seen.datagram.srcPort) +
                                       " session " + std::to_string(session_[to]),
                                   seen.datagram.octets);
    ASSERT_FALSE(m.error) << to << " " << m.error->stringValue();
    ASSERT_TRUE(m.warnings.empty()) << to << " " << m.warnings[0].stringValue();
    ASSERT_TRUE(m.countable()) << to << ": a record without its template";
    // A new session starts where the old one stopped; within one, nothing is missing or repeated.
    ASSERT_FALSE(m.sequence.error()) << to << " " << m.sequence.stringValue(m.header->sequence);
    auto& next = sequence_.try_emplace(to, m.header->sequence).first->second;
    ASSERT_EQ(m.header->sequence, next) << to;
    next += static_cast<uint32_t>(m.recordCount());
    EXPECT_LE(static_cast<uint32_t>(seen.datagram.time) - m.header->exportTime, 1u) << to;
    Count& count = counts_[to];
    ++count.messages;
    count.octets += seen.datagram.octets.size();
    count.records += m.recordCount();
    for (const auto& set : m.sets) {
      count.templatesBySet[set.id] += set.templates.size();
      count.recordsBySet[set.id] += set.recordCount();
      for (size_t i = 0; i < set.recordCount(); ++i) {
        std::string key;
        std::string rest;
        for (const auto& value : set.record(i)) {
          const std::string octets(value.octets.begin(), value.octets.end());
          (value.field->scope ? key : rest) += octets;
        }
        pictures_[to][set.id][key] = rest;
      }
    }
  }

  struct Count {
    uint64_t messages = 0;
    uint64_t octets = 0;
    uint64_t records = 0;
    std::map<uint16_t, uint64_t> templatesBySet;
    std::map<uint16_t, uint64_t> recordsBySet;
  };
  /// Keyed "<endpoint> > <destination>".
  std::map<std::string, Picture>& pictures() { return pictures_; }
  std::map<std::string, Count>& counts() { return counts_; }
  /// The destination starts over: another collector, or the same one anew.
  void forget(const std::string& to) {
    sequence_.erase(to);
    pictures_.erase(to);
    counts_.erase(to);
  }
  /// The same, and it knows no templates any more.
  void startAnew(const std::string& to) {
    ++session_[to];
    forget(to);
  }

 private:
  decoder::Decoder decoder_{[](uint32_t, uint16_t) { return nullptr; }};
  std::map<std::string, Picture> pictures_;
  std::map<std::string, Count> counts_;
  std::map<std::string, uint32_t> sequence_;
  std::map<std::string, unsigned> session_;
};

}  // namespace FlowTracking
