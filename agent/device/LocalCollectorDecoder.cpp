#include "agent/device/LocalCollectorDecoder.h"

#include <algorithm>
#include <utility>

#include "elements/Elements.h"
#include "platform/IpfixTypes.h"

namespace agent {
namespace {
using FlowTracking::TemplateId;
using Ipfix::IpfixConst;

constexpr uint16_t enterpriseBit = 0x8000;
constexpr size_t templateHeaderLen = 4;         // RFC 7011, 3.4.1
constexpr size_t optionsTemplateHeaderLen = 6;  // RFC 7011, 3.4.2.2
constexpr uint8_t longLength = 255;             // three octets tell the length (RFC 7011, 7)
/// How far back, in records, a message is late rather than the first of a stream that started over.
constexpr uint32_t lateMax = 4096;
/// More records than this do not get lost between two messages: the stream started over.
constexpr uint32_t gapMax = 1 << 20;

uint8_t octet(std::string_view s, size_t at) { return static_cast<uint8_t>(s[at]); }
uint16_t u16(std::string_view s, size_t at) {
  return static_cast<uint16_t>(octet(s, at) << 8 | octet(s, at + 1));
}
uint32_t u32(std::string_view s, size_t at) {
  return static_cast<uint32_t>(u16(s, at)) << 16 | u16(s, at + 2);
}
}  // namespace

LocalCollectorDecoder::LocalCollectorDecoder(Ptr<const Ipfix::ElementIdColl> registry,
                                             Output output, Limits limits)
    : registry_(std::move(registry)), output_(std::move(output)), limits_(limits) {}

/// The header and the frames of all sets, before any of them is looked into.
bool LocalCollectorDecoder::framed(std::string_view message) {
  if (message.size() < IpfixConst::messageHeaderLen() || u16(message, 0) != IpfixConst::version()) {
    ++counters_.badVersion;
    return false;
  }
  if (u16(message, 2) != message.size()) {
    ++counters_.badLength;
    return false;
  }
  size_t at = IpfixConst::messageHeaderLen();
  while (at < message.size()) {
    const size_t rest = message.size() - at;
    const size_t len = rest < IpfixConst::setHeaderLen() ? 0 : u16(message, at + 2);
    const uint16_t id = len == 0 ? 0 : u16(message, at);
    if (len < IpfixConst::setHeaderLen() || len > rest ||
        (id < IpfixConst::firstDataSetId() && id != IpfixConst::templateSetId() &&
         id != IpfixConst::optionsTemplateSetId())) {
      ++counters_.badSet;
      return false;
    }
    at += len;
  }
  return true;
}

void LocalCollectorDecoder::decode(std::string_view datagram, const IpGenAddr& from,
                                   uint16_t port) {
  if (!framed(datagram)) return;
  ++counters_.messages;
  ++datagrams_;
  displacements_ = 0;
  madeRoom_ = false;
  const uint32_t sequence = u32(datagram, 8);
  const StreamKey key(from, port, u32(datagram, 12));

  uint64_t records = 0;
  const uint64_t optionsBefore = counters_.optionsRecords;
  bool counted = true;  // every record of the message
  for (size_t at = IpfixConst::messageHeaderLen(); at < datagram.size();) {
    const uint16_t id = u16(datagram, at);
    const std::string_view set = datagram.substr(at, u16(datagram, at + 2));
    at += set.size();
    const std::string_view content = set.substr(IpfixConst::setHeaderLen());
    if (id < IpfixConst::firstDataSetId()) {
      templateSet(key, content, id == IpfixConst::optionsTemplateSetId());
      continue;
    }
    const auto stream = streams_.find(key);
    if (stream != streams_.end()) {
      const auto it = stream->second.templates.find(id);
      if (it != stream->second.templates.end()) {
        counted = dataSet(it->second, content, records) && counted;
        continue;
      }
    }
    ++counters_.setsWithoutTemplate;
    counted = false;
  }

  if (const auto stream = streams_.find(key); stream != streams_.end())
    checkSequence(stream->second, sequence, static_cast<uint32_t>(records),
                  static_cast<uint32_t>(counters_.optionsRecords - optionsBefore), counted);
}

void LocalCollectorDecoder::checkSequence(Stream& stream, uint32_t sequence, uint32_t records,
                                          uint32_t options, bool counted) {
  // Some devices count the message's own records in, and some of these no options data: a fault of
  // theirs, and no gap.
  const uint32_t before = sequence - records;
  const bool ownIncluded = counted && (before == stream.last || before + options == stream.last);
  if (stream.sequenceKnown && sequence != stream.next && !ownIncluded) {
    const uint32_t ahead = sequence - stream.next;
    if (ahead <= gapMax && sequence != 0) {
      ++counters_.sequenceGaps;
      counters_.recordsMissing += ahead;
    } else {
      ++counters_.sequenceBack;
      // A late message is no news of what comes next.
      if (sequence != 0 && stream.next - sequence < lateMax) return;
    }
  }
  stream.sequenceKnown = counted;
  stream.last = sequence;
  stream.next = sequence + records;
}

// --- Templates ---

void LocalCollectorDecoder::templateSet(const StreamKey& key, std::string_view set, bool options) {
  const size_t headerLen = options ? optionsTemplateHeaderLen : templateHeaderLen;
  while (set.size() >= templateHeaderLen) {
    const TemplateId id = u16(set, 0);
    const uint16_t fieldCount = u16(set, 2);
    if (fieldCount == 0) {
      if (id == 0) return;  // padding
      // Anybody could forge one: a template that is really gone expires.
      ++counters_.withdrawalsIgnored;
      set.remove_prefix(templateHeaderLen);
      continue;
    }
    bool good = id >= IpfixConst::firstDataSetId() && set.size() >= headerLen;
    if (good && options) {
      const uint16_t scopeCount = u16(set, 4);
      good = scopeCount > 0 && scopeCount <= fieldCount;
    }
    size_t len = headerLen;
    for (uint16_t i = 0; good && i < fieldCount; ++i) {
      const size_t rest = set.size() - len;
      const size_t specifier = rest >= 4 && (u16(set, len) & enterpriseBit) != 0 ? 8 : 4;
      good = rest >= specifier;
      len += specifier;
    }
    if (!good || !learn(key, id, set.substr(0, len), headerLen, options)) {
      ++counters_.badTemplate;
      return;
    }
    set.remove_prefix(len);
  }
}

/// How the records are made, and what of them is kept. False: they would have no length.
bool LocalCollectorDecoder::readFields(std::string_view fields, Template& t) {
  uint64_t unknown = 0;
  uint64_t badLength = 0;
  for (size_t at = 0; at < fields.size();) {
    const uint16_t word = u16(fields, at);
    const uint16_t len = u16(fields, at + 2);
    const bool enterprise = (word & enterpriseBit) != 0;
    const uint32_t number = enterprise ? u32(fields, at + 4) : 0;
    at += enterprise ? 8 : 4;
    const auto element = static_cast<uint16_t>(word & ~enterpriseBit);
    const bool variable = len == IpfixConst::variableLen();

    bool keep = false;
    const Ipfix::ElementId& known = registry_->elementIdColl(element);
    if (!registry_->elementIdCollHas(element) || known.enterpriseIe() != enterprise ||
        (enterprise && number != IpfixConst::enterpriseNumber())) {
      ++unknown;
    } else if (known.len() == IpfixConst::variableLen()
                   ? len == 0
                   : len > known.len() ||
                         !elements::typeAllows(elements::typeOf(enterprise, element, known.len()),
                                               len)) {
      ++badLength;
    } else {
      keep = true;
      t.passed.push_back({element, len, enterprise});
    }
    t.minLen += variable ? 1 : len;
    t.fixed = t.fixed && !variable;
    t.whole = t.whole && keep;
    if (keep && !variable) t.keptLen += len;
    if (!variable && !t.steps.empty() && !t.steps.back().variable && t.steps.back().keep == keep &&
        t.steps.back().len + uint32_t{len} <= UINT16_MAX) {
      t.steps.back().len = static_cast<uint16_t>(t.steps.back().len + len);
    } else {
      t.steps.push_back({variable ? uint16_t{0} : len, variable, keep});
    }
  }
  if (t.minLen == 0) return false;
  if (!t.options) {
    counters_.fieldsUnknown += unknown;
    counters_.fieldsOfBadLength += badLength;
  }
  return true;
}

// --- Data ---

/// False: not every record could be told from the next.
bool LocalCollectorDecoder::dataSet(Template& t, std::string_view set, uint64_t& records) {
  heardRecords(t);
  uint64_t n = 0;
  bool good = true;
  const auto passFixed = [&](uint32_t len, std::string_view octets) {
    const auto one = static_cast<uint16_t>(len);  // it fits a message
    output_.records(t.layout->second.id, {&one, 1}, octets);
  };
  scratch_.clear();
  if (t.fixed) {
    n = set.size() / t.minLen;  // what is left over is padding
    good = n > 0 || set.empty();
    if (n > 0 && t.layout && t.whole) {
      passFixed(t.minLen, set.substr(0, n * t.minLen));
    } else if (n > 0 && t.layout) {
      scratch_.reserve(n * t.keptLen);
      const char* from = set.data();
      for (uint64_t i = 0; i < n; ++i)
        for (const Step& step : t.steps) {
          if (step.keep) scratch_.append(from, step.len);
          from += step.len;
        }
      passFixed(t.keptLen, scratch_);
    }
    if (t.layout) counters_.recordsPassed += n;
  } else {
    good = variableRecords(t, set, n);
    good = good && (n > 0 || set.empty());
  }
  if (!good) ++counters_.badRecord;
  records += n;
  if (t.options) {
    counters_.optionsRecords += n;
  } else {
    counters_.recordsIn += n;
    if (!t.layout) counters_.recordsOfRefused += n;
  }
  return good;
}

/// Passes on records with fields of variable length, as many at a time as lie back to back: a
/// datagram may hold 60,000 of one octet. False: the last was longer than what there is.
bool LocalCollectorDecoder::variableRecords(const Template& t, std::string_view set,
                                            uint64_t& records) {
  size_t passed = 0;  // octets of the set before the first record that waits in `lens_`
  size_t at = 0;
  const auto pass = [&] {
    if (!lens_.empty()) {
      counters_.recordsPassed += lens_.size();
      output_.records(t.layout->second.id, lens_,
                      t.whole ? set.substr(passed, at - passed) : std::string_view(scratch_));
    }
    lens_.clear();
    scratch_.clear();
  };
  bool good = true;
  while (set.size() - at >= t.minLen) {
    const size_t keptBefore = scratch_.size();
    size_t len = 0;
    good = measure(t, set.substr(at), len);
    const size_t kept = t.whole ? len : scratch_.size() - keptBefore;
    if (!good || kept > room_) scratch_.resize(keptBefore);
    if (!good) break;
    ++records;
    if (t.layout && kept <= room_) {
      lens_.push_back(static_cast<uint16_t>(kept));
    } else if (t.layout) {
      ++counters_.recordsTooLarge;
      pass();
      passed = at + len;
    }
    at += len;
  }
  pass();
  return good;
}

/// The length of the record that `rest` begins with; its fields that are kept go to `scratch_`.
/// False: it is longer than what there is.
bool LocalCollectorDecoder::measure(const Template& t, std::string_view rest, size_t& len) {
  const bool copy = t.layout && !t.whole;
  len = 0;
  for (const Step& step : t.steps) {
    size_t n = step.len;
    if (step.variable) {
      if (rest.size() - len < 1) return false;
      n = size_t{octet(rest, len)} + 1;
      if (octet(rest, len) == longLength) {
        if (rest.size() - len < 3) return false;
        n = size_t{u16(rest, len + 1)} + 3;
      }
    }
    if (rest.size() - len < n) return false;
    if (copy && step.keep) scratch_.append(rest.substr(len, n));
    len += n;
  }
  return true;
}

}  // namespace agent
