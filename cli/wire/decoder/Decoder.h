#pragma once
#include <compare>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/wire/decoder/Element.h"

/// Decodes IPFIX messages (RFC 7011) that arrive over UDP, from anybody: no length in them is
/// trusted, no memory grows without a bound. Order of use:
///
///   decoder::Decoder d(lookup);
///   decoder::Message m = d.decode("10.0.0.1:40001 > 4739", octetsOfTheDatagram);
///   if (m.error) ...                       // what is malformed, and where
///   for (const auto& set : m.sets)
///     for (size_t i = 0; i < set.recordCount(); ++i)
///       for (const auto& value : set.record(i)) use(value.field->name(), value.text());
namespace decoder {

inline constexpr uint16_t variableLen = 65535;  // RFC 7011, 7

/// A field specifier of a template.
struct Field {
  uint16_t id = 0;
  uint16_t len = 0;         ///< octets; `variableLen`: each record tells
  uint32_t enterprise = 0;  ///< 0: IANA's element
  bool scope = false;
  const Element* element = nullptr;  ///< null: unknown

  bool variable() const { return len == variableLen; }
  /// The element's name, or "ie<id>", or "ie<enterprise>/<id>".
  std::string name() const;
  bool operator==(const Field&) const = default;
};

struct Template {
  uint16_t id = 0;
  uint16_t scopeCount = 0;  ///< above 0: an options template; the scope fields come first
  uint32_t recordLen = 0;   ///< octets of the shortest record
  std::vector<Field> fields;

  bool options() const { return scopeCount > 0; }
  bool variable() const;  ///< records may differ in length
  bool operator==(const Template&) const = default;
};

/// One field of one record. Lives as long as its message.
struct Value {
  const Field* field = nullptr;
  std::span<const uint8_t> octets;  ///< without the length of a variable-length field

  /// How the octets read: the element's type, or octetArray when it is unknown or cannot have
  /// this length.
  Type type() const;
  /// For people, on one line of printable characters: strings in double quotes, times in UTC as
  /// RFC 3339 has them, octets in hexadecimal.
  std::string text() const;
  std::optional<uint64_t> unsignedValue() const;  ///< of the unsigned types
  std::optional<int64_t> signedValue() const;     ///< of the signed types
  std::optional<double> floatValue() const;       ///< of the floating point types
  /// Of a string: its octets, less the zeros that fill up a fixed length.
  std::optional<std::string_view> stringValue() const;
};

/// Something wrong, and the octet of the message at which it stands.
struct Fault {
  size_t offset = 0;
  std::string text;
  std::string stringValue() const;  ///< "at octet 18: ..."
};

/// A template record as it arrived.
struct TemplateRecord {
  enum class Change {
    added,
    repeated,      ///< the same as is known
    redefined,     ///< other fields under the same id
    withdrawn,     ///< field count 0
    withdrawnAll,  ///< field count 0 for id 2 or 3: all templates of that kind
    refused        ///< not kept: the store is full
  };
  uint16_t id = 0;
  size_t offset = 0;
  Change change = Change::added;
  std::shared_ptr<const Template> definition;  ///< null in a withdrawal
};
std::string_view changeName(TemplateRecord::Change change);

struct Set {
  enum class Kind { templates, optionsTemplates, data };
  uint16_t id = 0;
  uint16_t len = 0;  ///< octets, its header included
  size_t offset = 0;
  size_t padding = 0;  ///< octets behind the last record
  std::vector<TemplateRecord> templates;

  // Of a data set. Without a definition the template is unknown and the records are not read.
  std::shared_ptr<const Template> definition;
  std::vector<Value> values;  ///< of all records, one after the other

  Kind kind() const;
  bool known() const { return kind() != Kind::data || definition; }
  size_t recordCount() const;
  std::span<const Value> record(size_t i) const;
};

struct MessageHeader {
  uint16_t version = 0;
  uint16_t length = 0;
  uint32_t exportTime = 0;  ///< UTC seconds since 1970
  uint32_t sequence = 0;
  uint32_t domain = 0;  ///< observation domain id
};

/// A message's sequence number against the one before it in its stream: data records sent earlier,
/// options data included, templates not, modulo 2^32 (RFC 7011, 3.1).
struct SequenceCheck {
  enum class State {
    first,      ///< the stream's first message
    ok,         ///< as expected
    unchecked,  ///< the records of the message before could not be counted
    missing,    ///< ahead of the expected number by `distance`: records were lost
    late,       ///< belongs into a gap seen before: overtaken by a later message
    back        ///< behind by `distance`: sent twice, numbered wrongly, or the exporter restarted
  };
  State state = State::first;
  uint32_t expected = 0;  ///< not with `first` and `unchecked`
  uint32_t distance = 0;

  bool error() const { return state == State::missing || state == State::back; }
  std::string stringValue(uint32_t sequence) const;
};
std::string_view sequenceStateName(SequenceCheck::State state);

/// A decoded datagram. Values point into `octets`: it can be moved, not copied.
struct Message {
  Message() = default;
  Message(Message&&) = default;
  Message& operator=(Message&&) = default;
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  std::vector<uint8_t> octets;  ///< the datagram
  /// Nothing: the datagram is no IPFIX message (see `error`) and belongs to no stream.
  std::optional<MessageHeader> header;
  std::vector<Set> sets;  ///< of a malformed message those before the error
  /// Malformed: the templates in it are not learnt, its records are not counted.
  std::optional<Fault> error;
  std::vector<Fault> warnings;  ///< faults that do not keep it from being read; the first 64
  SequenceCheck sequence;

  size_t recordCount() const;  ///< data records, options data included
  /// Every record could be counted: well-formed, all templates known.
  bool countable() const;
};

/// Bounds of what a decoder keeps and makes. A template costs its fields and four more.
struct Limits {
  size_t streams = 1024;              ///< the one unheard longest makes room
  size_t costPerStream = 1 << 15;     ///< of its templates; further ones are refused
  size_t cost = 1 << 18;              ///< of all templates; streams unheard longest make room
  size_t valuesPerMessage = 1 << 17;  ///< a message that decodes to more is malformed
  size_t sequenceErrors = 32;         ///< kept per stream: the latest
};

/// One observation domain of one transport session: what is remembered between messages.
struct Stream {
  struct SequenceError {
    uint64_t message = 0;  ///< which message of the stream, from 1
    uint32_t sequence = 0;
    SequenceCheck check;
  };
  std::map<uint16_t, std::shared_ptr<const Template>> templates;
  size_t cost = 0;  ///< of all templates (see Limits)

  std::optional<uint32_t> expected;  ///< the next sequence number, when it can be known
  /// Ranges [first, second) of sequence numbers that were jumped over and not heard yet.
  std::vector<std::pair<uint32_t, uint32_t>> gaps;
  std::vector<SequenceError> lastErrors;

  uint64_t messages = 0;
  uint64_t octets = 0;
  uint64_t dataRecords = 0;
  uint64_t templateRecords = 0;  ///< options templates included
  uint64_t malformed = 0;        ///< messages with an error
  uint64_t unknownSets = 0;      ///< data sets without a template
  uint64_t warnings = 0;
  uint64_t sequenceErrors = 0;
  uint64_t missing = 0;  ///< data records that were jumped over and did not arrive late
  uint64_t lastHeard = 0;
};

struct StreamKey {
  std::string session;
  uint32_t domain = 0;
  auto operator<=>(const StreamKey&) const = default;
};

class Decoder {
 public:
  explicit Decoder(ElementLookup lookup, const Limits& limits = {});

  /// Decodes one datagram and updates its stream. `session` names the transport session, any text
  /// that is equal for equal source address, source port and destination port.
  Message decode(std::string_view session, std::span<const uint8_t> datagram);

  const std::map<StreamKey, Stream>& streams() const { return streams_; }
  uint64_t strangers() const { return strangers_; }  ///< datagrams that were no IPFIX message
  uint64_t evicted() const { return evicted_; }      ///< streams forgotten to make room
  size_t cost() const { return cost_; }              ///< of all templates of all streams

 private:
  class Parser;
  Stream& streamOf_p(const StreamKey& key);
  bool evict_p(const Stream* keep);
  void learn_p(Stream& stream, Message& message);
  bool learn_p(Stream& stream, const std::shared_ptr<const Template>& definition);
  void forget_p(Stream& stream, uint16_t id);
  SequenceCheck checkSequence_p(Stream& stream, const Message& message) const;

  ElementLookup lookup_;
  Limits limits_;
  std::map<StreamKey, Stream> streams_;
  size_t cost_ = 0;
  uint64_t clock_ = 0;  // messages so far: the order in which streams were heard
  uint64_t strangers_ = 0;
  uint64_t evicted_ = 0;
};

}  // namespace decoder
