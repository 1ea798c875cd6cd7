#include "cli/wire/decoder/Decoder.h"

#include <algorithm>

#include "cli/text/Quoted.h"

namespace decoder {
namespace {

constexpr size_t messageHeaderLen = 16;
constexpr size_t setHeaderLen = 4;
constexpr uint16_t templateSetId = 2;
constexpr uint16_t optionsTemplateSetId = 3;
constexpr uint16_t firstDataSetId = 256;
constexpr size_t warningsMax = 64;  // kept of one message
constexpr size_t gapsMax = 32;      // kept of one stream
constexpr size_t templateCost = 4;  // of a template beyond its fields, in fields

std::string_view asText(std::string_view s) { return s; }
std::string asText(uint64_t n) { return std::to_string(n); }
template <class... A>
std::string cat(const A&... parts) {
  std::string out;
  ((out += asText(parts)), ...);
  return out;
}
std::string octetCount(size_t n) { return cat(n, n == 1 ? " octet" : " octets"); }

std::string isLeft(size_t n) {
  return cat("; ", n == 0 ? "none" : asText(n), n < 2 ? " is" : " are", " left in the set");
}

size_t costOf(const Template& t) { return t.fields.size() + templateCost; }

}  // namespace

std::string Field::name() const {
  if (element) return std::string(element->name);
  return enterprise == 0 ? cat("ie", id) : cat("ie", enterprise, "/", id);
}
bool Template::variable() const {
  return std::any_of(fields.begin(), fields.end(), [](const Field& f) { return f.variable(); });
}
std::string Fault::stringValue() const { return cat("at octet ", offset, ": ", text); }

std::string_view changeName(TemplateRecord::Change change) {
  static constexpr std::string_view names[] = {"new",       "repeated",      "redefined",
                                               "withdrawn", "all withdrawn", "not kept"};
  static_assert(std::size(names) == static_cast<size_t>(TemplateRecord::Change::refused) + 1);
  return names[static_cast<size_t>(change)];
}
std::string_view sequenceStateName(SequenceCheck::State state) {
  static constexpr std::string_view names[] = {"first",   "ok",   "unchecked",
                                               "missing", "late", "back"};
  static_assert(std::size(names) == static_cast<size_t>(SequenceCheck::State::back) + 1);
  return names[static_cast<size_t>(state)];
}
std::string SequenceCheck::stringValue(uint32_t sequence) const {
  std::string numbers = cat("sequence ", sequence, ", expected ", expected, ": ");
  switch (state) {
    case State::first:
      return cat("sequence ", sequence, ", the first heard");
    case State::ok:
      return cat("sequence ", sequence, " as expected");
    case State::unchecked:
      return cat("sequence ", sequence,
                 " not checkable: the records of the message before could not be counted");
    case State::missing:
      return cat(numbers, distance, distance == 1 ? " data record" : " data records", " missing");
    case State::late:
      return cat(numbers, "late, fills a gap seen before");
    case State::back:
      return cat(numbers, distance,
                 " back (sent twice, overtaken, numbered wrongly, or restarted)");
  }
  return numbers;
}

Set::Kind Set::kind() const {
  if (id == templateSetId) return Kind::templates;
  return id == optionsTemplateSetId ? Kind::optionsTemplates : Kind::data;
}
size_t Set::recordCount() const {
  return definition ? values.size() / definition->fields.size() : 0;
}
std::span<const Value> Set::record(size_t i) const {
  const size_t n = definition->fields.size();
  return std::span(values).subspan(i * n, n);
}
size_t Message::recordCount() const {
  size_t n = 0;
  for (const Set& s : sets) n += s.recordCount();
  return n;
}
bool Message::countable() const {
  return !error && std::all_of(sets.begin(), sets.end(), [](const Set& s) { return s.known(); });
}

/// Reads one message into its tree. A malformed one ends the reading by a Fault, which stays
/// inside `decode`.
class Decoder::Parser {
 public:
  Parser(const Decoder& decoder, Message& message) : decoder_(decoder), m_(message) {}

  void header() {
    const size_t size = m_.octets.size();
    if (size < messageHeaderLen)
      fail(0, cat("a message of ", octetCount(size), "; its header alone has 16"));
    MessageHeader h;
    h.version = u16(0);
    h.length = u16(2);
    h.exportTime = u32(4);
    h.sequence = u32(8);
    h.domain = u32(12);
    if (h.version != 10) fail(0, cat("version ", h.version, "; IPFIX has 10"));
    if (h.length != size)
      fail(2, cat("message length ", h.length, "; the datagram has ", octetCount(size)));
    m_.header = h;
  }

  void sets(const Stream& stream) {
    stream_ = &stream;
    size_t at = messageHeaderLen;
    while (at < m_.octets.size()) {
      const size_t left = m_.octets.size() - at;
      if (left < setHeaderLen)
        fail(at, cat(octetCount(left), " behind the last set; a set header has 4"));
      Set set;
      set.offset = at;
      set.id = u16(at);
      set.len = u16(at + 2);
      if (set.kind() == Set::Kind::data && set.id < firstDataSetId)
        fail(at, cat("set id ", set.id, "; allowed are 2, 3 and 256 to 65535"));
      if (set.len < setHeaderLen || set.len > left)
        fail(at + 2, cat("set length ", set.len, "; allowed are 4 to ", left,
                         ", the octets left in the message"));
      if (set.len == setHeaderLen) warn(at, cat("set ", set.id, " is empty"));
      if (set.kind() == Set::Kind::data)
        dataSet(set);
      else
        templateSet(set);
      at += set.len;
      m_.sets.push_back(std::move(set));
    }
    if (m_.sets.empty()) warn(0, "a message without a set");
  }

 private:
  using Change = TemplateRecord::Change;

  uint16_t u16(size_t at) const {
    return static_cast<uint16_t>(m_.octets[at] << 8 | m_.octets[at + 1]);
  }
  uint32_t u32(size_t at) const { return uint32_t{u16(at)} << 16 | u16(at + 2); }
  [[noreturn]] static void fail(size_t offset, std::string text) {
    throw Fault{offset, std::move(text)};
  }
  void warn(size_t offset, std::string text) {
    if (m_.warnings.size() < warningsMax) m_.warnings.push_back({offset, std::move(text)});
  }

  /// The template as known at this place of the message: from an earlier record in it, or before.
  std::shared_ptr<const Template> known(uint16_t id) const {
    if (auto it = staged_.find(id); it != staged_.end()) return it->second;
    auto it = stream_->templates.find(id);
    if (it == stream_->templates.end() || allWithdrawn_[it->second->options()]) return nullptr;
    return it->second;
  }

  void templateSet(Set& set) {
    const bool options = set.kind() == Set::Kind::optionsTemplates;
    const size_t end = set.offset + set.len;
    size_t at = set.offset + setHeaderLen;
    while (end - at >= 4) {  // a withdrawal, the shortest record, has 4 octets in both kinds
      TemplateRecord record;
      record.offset = at;
      record.id = u16(at);
      const uint16_t count = u16(at + 2);
      const bool all = count == 0 && record.id == set.id;
      if (record.id < firstDataSetId && !all)
        fail(at, cat("template id ", record.id, "; allowed are 256 to 65535"));
      if (count == 0) {
        withdraw(record, options, all);
        at += 4;
      } else {
        at = definition(record, count, options, end);
      }
      set.templates.push_back(std::move(record));
    }
    pad(set, at);
  }

  void withdraw(TemplateRecord& record, bool options, bool all) {
    const std::string what =
        all ? cat("all ", options ? "options " : "", "templates") : cat("template ", record.id);
    warn(record.offset, cat(what, " withdrawn, which is not allowed over UDP (RFC 7011, 8.4)"));
    record.change = all ? Change::withdrawnAll : Change::withdrawn;
    if (!all) {
      staged_[record.id] = nullptr;
      return;
    }
    allWithdrawn_[options] = true;
    for (auto& [id, t] : staged_)
      if (t && t->options() == options) t = nullptr;
  }

  size_t definition(TemplateRecord& record, uint16_t count, bool options, size_t end) {
    auto t = std::make_shared<Template>();
    t->id = record.id;
    size_t at = record.offset + 4;
    if (options) {
      if (end - at < 2)
        fail(record.offset,
             cat("an options template's header has 6 octets", isLeft(end - record.offset)));
      t->scopeCount = u16(at);
      if (t->scopeCount == 0 || t->scopeCount > count)
        fail(at, cat("scope field count ", t->scopeCount, " of template ", record.id,
                     "; allowed are 1 to ", count, ", the field count"));
      at += 2;
    }
    if (count > (end - at) / 4)
      fail(record.offset + 2,
           cat("field count ", count, " of template ", record.id, "; the ", octetCount(end - at),
               " left in the set hold at most ", (end - at) / 4, " field specifiers"));
    t->fields.reserve(count);
    uint32_t recordLen = 0;
    const size_t specifiers = at;
    for (uint16_t i = 0; i < count; ++i) {
      if (end - at < 4)
        fail(at, cat("field ", i + 1U, " of template ", record.id, " needs a specifier of 4 octets",
                     isLeft(end - at)));
      Field f;
      const uint16_t id = u16(at);
      f.id = id & 0x7fff;
      f.len = u16(at + 2);
      f.scope = i < t->scopeCount;
      at += 4;
      if (id & 0x8000) {
        if (end - at < 4)
          fail(at, cat("field ", i + 1U, " of template ", record.id,
                       " needs an enterprise number of 4 octets", isLeft(end - at)));
        f.enterprise = u32(at);
        at += 4;
      }
      f.element = decoder_.lookup_ ? decoder_.lookup_(f.enterprise, f.id) : nullptr;
      recordLen += f.variable() ? 1U : f.len;
      t->fields.push_back(f);
    }
    if (recordLen == 0)
      fail(record.offset,
           cat("template ", record.id, " has records of 0 octets, which cannot be counted"));
    t->recordLen = recordLen;

    const auto before = known(record.id);
    if (before && *before == *t) {
      record.change = Change::repeated;
      record.definition = before;
    } else {
      record.change = before ? Change::redefined : Change::added;
      checkLengths(*t, specifiers);
      record.definition = staged_[record.id] = std::move(t);
    }
    return at;
  }

  void checkLengths(const Template& t, size_t at) {
    for (size_t i = 0; i < t.fields.size(); ++i) {
      const Field& f = t.fields[i];
      // Variable length is the number 65535 here: only types without a fixed length allow it.
      if (f.element && !typeAllows(f.element->type, f.len))
        warn(at + 2, cat("field ", i + 1, " of template ", t.id, ", ", f.name(), ", has ",
                         f.variable() ? std::string("variable length") : cat("length ", f.len),
                         "; ", typeName(f.element->type), " has ", typeLengths(f.element->type)));
      at += f.enterprise == 0 ? 4 : 8;
    }
  }

  void dataSet(Set& set) {
    set.definition = known(set.id);
    if (!set.definition) return;
    const Template& t = *set.definition;
    const size_t end = set.offset + set.len;
    size_t at = set.offset + setHeaderLen;
    while (end - at >= t.recordLen) {
      if (t.fields.size() > decoder_.limits_.valuesPerMessage - valueCount_)
        fail(at, cat("more than ", decoder_.limits_.valuesPerMessage, " values in one message"));
      valueCount_ += t.fields.size();
      for (const Field& f : t.fields) at = value(set, f, at, end);
    }
    pad(set, at);
  }

  size_t value(Set& set, const Field& f, size_t at, size_t end) {
    size_t len = f.len;
    if (f.variable()) {
      if (end == at) fail(at, cat(f.name(), " needs a length octet", isLeft(0)));
      len = m_.octets[at++];
      if (len == 255) {
        if (end - at < 2)
          fail(at, cat(f.name(), " announces a length of 2 octets", isLeft(end - at)));
        len = u16(at);
        at += 2;
      }
    }
    if (len > end - at) fail(at, cat(f.name(), " has ", octetCount(len), isLeft(end - at)));
    const Value v{&f, std::span(m_.octets).subspan(at, len)};
    if (f.element && f.element->type == Type::string && !cli::validUtf8(*v.stringValue()))
      warn(at, cat(f.name(), " is not valid UTF-8: ", v.text()));
    set.values.push_back(v);
    return at + len;
  }

  void pad(Set& set, size_t at) {
    const size_t end = set.offset + set.len;
    set.padding = end - at;
    if (std::any_of(m_.octets.begin() + static_cast<ptrdiff_t>(at),
                    m_.octets.begin() + static_cast<ptrdiff_t>(end),
                    [](uint8_t c) { return c != 0; }))
      warn(at, cat(octetCount(set.padding), " left in set ", set.id,
                   " after its last record: too short for another, and no padding, which is zero"));
  }

  const Decoder& decoder_;
  Message& m_;
  const Stream* stream_ = nullptr;
  // What the message's own template records did so far; null: withdrawn.
  std::map<uint16_t, std::shared_ptr<const Template>> staged_;
  bool allWithdrawn_[2] = {false, false};  // [options]; later definitions stand in staged_
  size_t valueCount_ = 0;
};

Decoder::Decoder(ElementLookup lookup, const Limits& limits)
    : lookup_(std::move(lookup)), limits_(limits) {}

Message Decoder::decode(std::string_view session, std::span<const uint8_t> datagram) {
  Message m;
  m.octets.assign(datagram.begin(), datagram.end());
  Parser parser(*this, m);
  try {
    parser.header();
  } catch (Fault& fault) {
    ++strangers_;
    m.error = std::move(fault);
    return m;
  }

  Stream& stream = streamOf_p({std::string(session), m.header->domain});
  stream.lastHeard = ++clock_;
  try {
    parser.sets(stream);
    learn_p(stream, m);
  } catch (Fault& fault) {
    m.error = std::move(fault);
  }
  m.sequence = checkSequence_p(stream, m);

  ++stream.messages;
  stream.octets += m.octets.size();
  stream.malformed += m.error.has_value();
  stream.warnings += m.warnings.size();
  if (!m.error) {
    stream.dataRecords += m.recordCount();
    for (const Set& s : m.sets) {
      stream.templateRecords += s.templates.size();
      stream.unknownSets += !s.known();
    }
  }
  return m;
}

Stream& Decoder::streamOf_p(const StreamKey& key) {
  if (auto it = streams_.find(key); it != streams_.end()) return it->second;
  if (streams_.size() >= limits_.streams) evict_p(nullptr);
  return streams_[key];
}

/// Forgets the stream that has been silent longest. False: there is none but `keep`.
bool Decoder::evict_p(const Stream* keep) {
  auto oldest = streams_.end();
  for (auto it = streams_.begin(); it != streams_.end(); ++it)
    if (&it->second != keep &&
        (oldest == streams_.end() || it->second.lastHeard < oldest->second.lastHeard))
      oldest = it;
  if (oldest == streams_.end()) return false;
  cost_ -= oldest->second.cost;
  streams_.erase(oldest);
  ++evicted_;
  return true;
}

/// Takes over the message's template records, now that the whole message is known to be
/// well-formed.
void Decoder::learn_p(Stream& stream, Message& m) {
  for (Set& set : m.sets)
    for (TemplateRecord& r : set.templates) {
      if (r.definition) {
        if (learn_p(stream, r.definition)) continue;
        r.change = TemplateRecord::Change::refused;
        if (m.warnings.size() < warningsMax)
          m.warnings.push_back(
              {r.offset, cat("template ", r.id, " is not kept: the stream's ",
                             stream.templates.size(), " templates fill the room it may have")});
      } else if (r.change == TemplateRecord::Change::withdrawn) {
        forget_p(stream, r.id);
      } else {
        const bool options = set.kind() == Set::Kind::optionsTemplates;
        for (auto it = stream.templates.begin(); it != stream.templates.end();) {
          const auto& t = (it++)->second;
          if (t->options() == options) forget_p(stream, t->id);
        }
      }
    }
}

bool Decoder::learn_p(Stream& stream, const std::shared_ptr<const Template>& t) {
  forget_p(stream, t->id);
  const size_t cost = costOf(*t);
  if (cost > limits_.costPerStream - std::min(stream.cost, limits_.costPerStream)) return false;
  while (cost_ + cost > limits_.cost)
    if (!evict_p(&stream)) return false;
  stream.templates[t->id] = t;
  stream.cost += cost;
  cost_ += cost;
  return true;
}

void Decoder::forget_p(Stream& stream, uint16_t id) {
  auto it = stream.templates.find(id);
  if (it == stream.templates.end()) return;
  const size_t cost = costOf(*it->second);
  stream.cost -= cost;
  cost_ -= cost;
  stream.templates.erase(it);
}

SequenceCheck Decoder::checkSequence_p(Stream& s, const Message& m) const {
  using State = SequenceCheck::State;
  const uint32_t sequence = m.header->sequence;
  const auto records = static_cast<uint32_t>(m.recordCount());
  SequenceCheck c;
  if (s.messages > 0 && !s.expected) {
    c.state = State::unchecked;
  } else if (s.messages > 0) {
    c.expected = *s.expected;
    c.distance = sequence - c.expected;
    if (c.distance == 0) {
      c.state = State::ok;
    } else if (c.distance < 1U << 31) {
      c.state = State::missing;
      s.missing += c.distance;
      if (s.gaps.size() == gapsMax) s.gaps.erase(s.gaps.begin());
      s.gaps.emplace_back(c.expected, sequence);
    } else {
      // Behind. It is late, and no error, where its records fill a gap or a part of one; what is
      // left of the gap before and behind them stays.
      c.distance = c.expected - sequence;
      c.state = State::back;
      for (auto gap = s.gaps.begin(); gap != s.gaps.end(); ++gap) {
        const auto [from, to] = *gap;
        const uint64_t filled = uint64_t{sequence - from} + records;
        if (sequence - from >= to - from || filled > to - from) continue;
        c.state = State::late;
        s.missing -= records;
        if (records == 0) break;
        gap = s.gaps.erase(gap);
        if (sequence + records != to) gap = s.gaps.emplace(gap, sequence + records, to);
        if (sequence != from) s.gaps.emplace(gap, from, sequence);
        break;
      }
    }
  }
  if (c.error()) {
    ++s.sequenceErrors;
    if (s.lastErrors.size() == limits_.sequenceErrors) s.lastErrors.erase(s.lastErrors.begin());
    s.lastErrors.push_back({s.messages + 1, sequence, c});
  }
  if (c.state == State::late) return c;  // it says nothing of what comes next
  if (c.state == State::back) s.gaps.clear();
  s.expected.reset();
  if (m.countable()) s.expected = sequence + records;
  return c;
}

}  // namespace decoder
