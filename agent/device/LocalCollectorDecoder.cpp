#include "agent/device/LocalCollectorDecoder.h"

#include <utility>

#include "platform/IpfixTypes.h"

namespace agent {
namespace {
using FlowTracking::TemplateId;
using Ipfix::IpfixConst;

constexpr size_t templateHeaderLen = 4;         // RFC 7011, 3.4.1
constexpr size_t optionsTemplateHeaderLen = 6;  // RFC 7011, 3.4.2.2
/// How far back, in records, a message is late rather than the first of a stream that started over.
constexpr uint32_t lateMax = 4096;
/// More records than this do not get lost between two messages: the stream started over.
constexpr uint32_t gapMax = 1 << 20;
}  // namespace

LocalCollectorDecoder::LocalCollectorDecoder(Ptr<const Ipfix::ElementIdColl> registry,
                                             Output output, const Limits& limits)
    : templates_(std::move(registry), std::move(output.publish), std::move(output.withdraw), limits,
                 counters_),
      records_(std::move(output.records)) {}

/// The header and the frames of all sets, before any of them is looked into.
bool LocalCollectorDecoder::framed(std::string_view message) {
  if (message.size() < IpfixConst::messageHeaderLen() ||
      u16At(message, 0) != IpfixConst::version()) {
    ++counters_.badVersion;
    return false;
  }
  if (u16At(message, 2) != message.size()) {
    ++counters_.badLength;
    return false;
  }
  size_t at = IpfixConst::messageHeaderLen();
  while (at < message.size()) {
    const size_t rest = message.size() - at;
    const size_t len = rest < IpfixConst::setHeaderLen() ? 0 : u16At(message, at + 2);
    const uint16_t id = len == 0 ? 0 : u16At(message, at);
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
  templates_.datagramBegins();
  const uint32_t sequence = u32At(datagram, 8);
  const StreamKey key(from, port, u32At(datagram, 12));

  uint64_t records = 0;
  const uint64_t optionsBefore = counters_.optionsRecords;
  bool counted = true;  // every record of the message
  for (size_t at = IpfixConst::messageHeaderLen(); at < datagram.size();) {
    const uint16_t id = u16At(datagram, at);
    const std::string_view set = datagram.substr(at, u16At(datagram, at + 2));
    at += set.size();
    const std::string_view content = set.substr(IpfixConst::setHeaderLen());
    if (id < IpfixConst::firstDataSetId()) {
      templateSet(key, content, id == IpfixConst::optionsTemplateSetId());
      continue;
    }
    if (Stream* const stream = templates_.stream(key)) {
      const auto it = stream->templates.find(id);
      if (it != stream->templates.end()) {
        counted = dataSet(it->second, content, records) && counted;
        continue;
      }
    }
    ++counters_.setsWithoutTemplate;
    counted = false;
  }

  if (Stream* const stream = templates_.stream(key))
    checkSequence(*stream, sequence, static_cast<uint32_t>(records),
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
    const TemplateId id = u16At(set, 0);
    const uint16_t fieldCount = u16At(set, 2);
    if (fieldCount == 0) {
      if (id == 0) return;  // padding
      // Anybody could forge one: a template that is really gone expires.
      ++counters_.withdrawalsIgnored;
      set.remove_prefix(templateHeaderLen);
      continue;
    }
    bool good = id >= IpfixConst::firstDataSetId() && set.size() >= headerLen;
    if (good && options) {
      const uint16_t scopeCount = u16At(set, 4);
      good = scopeCount > 0 && scopeCount <= fieldCount;
    }
    size_t len = headerLen;
    for (uint16_t i = 0; good && i < fieldCount; ++i) {
      const size_t rest = set.size() - len;
      const size_t specifier = rest < 4 ? 4 : specifierLen(u16At(set, len));
      good = rest >= specifier;
      len += specifier;
    }
    if (!good || !templates_.learn(key, id, set.substr(0, len), headerLen, options)) {
      ++counters_.badTemplate;
      return;
    }
    set.remove_prefix(len);
  }
}

// --- Data ---

/// False: not every record could be told from the next.
bool LocalCollectorDecoder::dataSet(Template& t, std::string_view set, uint64_t& records) {
  templates_.heardRecords(t);
  const RecordReduction& r = t.records;
  const TemplateId id = t.passedAs();
  uint64_t n = 0;
  bool good = true;
  const auto passFixed = [&](uint32_t len, std::string_view octets) {
    const auto one = static_cast<uint16_t>(len);  // it fits a message
    records_(id, {&one, 1}, octets);
  };
  scratch_.clear();
  if (r.fixed) {
    n = set.size() / r.minLen;  // what is left over is padding
    good = n > 0 || set.empty();
    if (n > 0 && id != 0 && r.whole) {
      passFixed(r.minLen, set.substr(0, n * r.minLen));
    } else if (n > 0 && id != 0) {
      r.takeFixed(set.data(), n, scratch_);
      passFixed(r.keptLen, scratch_);
    }
    if (id != 0) counters_.recordsPassed += n;
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
    if (id == 0) counters_.recordsOfRefused += n;
  }
  return good;
}

/// Passes on records with fields of variable length, as many at a time as lie back to back: a
/// datagram may hold 60,000 of one octet. False: the last was longer than what there is.
bool LocalCollectorDecoder::variableRecords(const Template& t, std::string_view set,
                                            uint64_t& records) {
  const RecordReduction& r = t.records;
  const TemplateId id = t.passedAs();
  const uint32_t room = templates_.room();
  std::string* const copied = id != 0 && !r.whole ? &scratch_ : nullptr;
  size_t passed = 0;  // octets of the set before the first record that waits in `lens_`
  size_t at = 0;
  const auto pass = [&] {
    if (!lens_.empty()) {
      counters_.recordsPassed += lens_.size();
      records_(id, lens_, r.whole ? set.substr(passed, at - passed) : std::string_view(scratch_));
    }
    lens_.clear();
    scratch_.clear();
  };
  bool good = true;
  while (set.size() - at >= r.minLen) {
    const size_t keptBefore = scratch_.size();
    size_t len = 0;
    good = r.take(set.substr(at), len, copied);
    const size_t kept = r.whole ? len : scratch_.size() - keptBefore;
    if (!good || kept > room) scratch_.resize(keptBefore);
    if (!good) break;
    ++records;
    if (id != 0 && kept <= room) {
      lens_.push_back(static_cast<uint16_t>(kept));
    } else if (id != 0) {
      ++counters_.recordsTooLarge;
      pass();
      passed = at + len;
    }
    at += len;
  }
  pass();
  return good;
}

}  // namespace agent
