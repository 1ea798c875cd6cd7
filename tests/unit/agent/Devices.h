#pragma once
#include "agent/device/LocalCollector.h"
#include "agent/records/FlowExport.h"
#include "tests/unit/agent/World.h"
#include "tests/unit/ipfix/Tree.h"

/// What devices send to the local collector, and what of it is passed on.
namespace agent {
using FlowTracking::TemplateId;

inline std::string be(uint64_t v, size_t n) {
  std::string out;
  for (size_t i = n; i-- > 0;) out += static_cast<char>(v >> (8 * i));
  return out;
}
/// One field as a device describes it; `pen` 0: IANA's.
struct Field {
  uint16_t element;
  uint16_t len;
  uint32_t pen = 0;
};
inline constexpr uint16_t variable = 65535;

inline std::string templateRecord(TemplateId id, const std::vector<Field>& fields,
                                  int scopes = -1) {
  std::string out = be(id, 2) + be(fields.size(), 2);
  if (scopes >= 0) out += be(static_cast<uint64_t>(scopes), 2);
  for (const Field& f : fields) {
    out += be(f.element | (f.pen ? 0x8000u : 0u), 2) + be(f.len, 2);
    if (f.pen) out += be(f.pen, 4);
  }
  return out;
}
inline std::string set(uint16_t id, const std::string& content) {
  return be(id, 2) + be(content.size() + 4, 2) + content;
}
inline std::string message(const std::string& sets, uint32_t sequence = 0, uint32_t domain = 1) {
  return be(10, 2) + be(16 + sets.size(), 2) + be(1700000000, 4) + be(sequence, 4) + be(domain, 4) +
         sets;
}
inline std::string templates(TemplateId id, const std::vector<Field>& fields) {
  return set(2, templateRecord(id, fields));
}

/// A variable-length field's octets (RFC 7011, 7).
inline std::string counted(const std::string& octets, bool longForm = false) {
  const bool three = longForm || octets.size() >= 255;
  return (three ? '\xff' + be(octets.size(), 2) : be(octets.size(), 1)) + octets;
}

/// Takes what a local collector passes on.
class PassedTest : public FlowTracking::TreeTest {
 protected:
  void pass(RecordLens lens, std::string_view records) {
    ++calls;
    ASSERT_FALSE(lens.empty());
    for (size_t i = 0; !records.empty(); ++i) {
      const size_t len = lens.size() == 1 ? lens[0] : lens[i];
      ASSERT_TRUE(len > 0 && len <= records.size());
      passed.emplace_back(records.substr(0, len));
      records.remove_prefix(len);
    }
  }
  std::vector<std::string> passed;
  size_t calls = 0;
};

/// A decoder whose calls are checked: an id is published once, the lowest that is free,
/// rests before it means anything else, and is withdrawn only after the collectors were told of it.
class DecoderTest : public PassedTest {
 protected:
  explicit DecoderTest(LocalCollectorDecoder::Limits limits = {})
      : decoder(init->elementIdCollection(),
                {.publish = [this](TemplateId id, const PassedLayout& l) { publish(id, l); },
                 .withdraw = [this](TemplateId id) { withdraw(id); },
                 .records =
                     [this](TemplateId id, RecordLens lens, std::string_view records) {
                       EXPECT_TRUE(published.contains(id)) << "records before their template";
                       pass(lens, records);
                     }},
                limits) {
    addIanaElements(*init->elementIdCollection());
    decoder.templates().holdIs(hold);
  }
  void publish(TemplateId id, const PassedLayout& layout) {
    TemplateId expected = 256;
    while (published.contains(expected) || resting.contains(expected)) ++expected;
    for (const auto& [rests, meant] : resting)
      if (meant.first == layout) expected = rests;
    EXPECT_EQ(id, expected);
    resting.erase(id);
    published[id] = layout;
    untold.insert(id);
  }
  void withdraw(TemplateId id) {
    EXPECT_FALSE(untold.contains(id)) << "records of it may wait behind it";
    resting[id] = {published.at(id), now};
    published.erase(id);
  }
  void hear(const std::string& datagram, uint16_t port = 1000, uint32_t from = 0x0a000005) {
    // In memory of its own, so that a read behind its end is seen.
    const std::vector<char> octets(datagram.begin(), datagram.end());
    decoder.decode({octets.data(), octets.size()}, IpAddr(from), port);
  }
  void settle() {
    untold.clear();
    decoder.templates().settle();
  }
  void advance(Seconds d) {
    now += d;
    decoder.templates().advance(d);
    std::erase_if(resting, [this](const auto& r) { return now - r.second.second >= hold; });
  }
  const LocalCollectorCounters& n() const { return decoder.counters(); }

  static constexpr Seconds hold{170};
  Seconds now{};
  std::map<TemplateId, PassedLayout> published;
  std::map<TemplateId, std::pair<PassedLayout, Seconds>> resting;  // what it meant, since when
  std::set<TemplateId> untold;                                     // of the published
  LocalCollectorDecoder decoder;
};

}  // namespace agent
