#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "agent/device/RecordReduction.h"
#include "platform/Ip.h"
#include "platform/TaskScheduler.h"
#include "platform/Values.h"

namespace agent {
using namespace platform;

/// What a local collector saw; counts never go down.
struct LocalCollectorCounters {
  uint64_t messages = 0;  ///< datagrams that are IPFIX messages as a whole
  // Datagrams that are not. They change nothing.
  uint64_t badVersion = 0;  ///< shorter than a message header, or not version 10
  uint64_t badLength = 0;   ///< the header's length is not the datagram's
  uint64_t badSet = 0;      ///< sets that do not fill the message, or have reserved ids
  // Inside of messages: what follows in the same set is lost.
  uint64_t badTemplate = 0;  ///< template records that do not fit their set, or cannot be
  uint64_t badRecord = 0;    ///< data that is no record of its template
  // Templates.
  uint64_t templatesLearnt = 0;        ///< new ones and other ones under an id that was known
  uint64_t templatesWithoutField = 0;  ///< refused: the registry knows none of their fields
  uint64_t templatesMixed = 0;         ///< refused: IPv4 and IPv6 addresses
  uint64_t templatesTooLarge = 0;      ///< refused: their records do not fit a message
  uint64_t templatesWithoutRoom = 0;   ///< refused: with them the templates would not fit one
  uint64_t templatesOverLimit = 0;  ///< refused: too many fields, too many in one datagram, or no
                                    ///< id is free for them
  uint64_t templatesDisplaced = 0;  ///< gave their place up to others, or to a smaller mtu
  uint64_t templatesExpired = 0;    ///< not sent again for so long that they are forgotten
  uint64_t optionsTemplates = 0;    ///< learnt in order to skip their records
  uint64_t withdrawalsIgnored = 0;  ///< over UDP there must be none (RFC 7011, 8.4)
  uint64_t fieldsUnknown = 0;       ///< left out of learnt templates: not in the registry
  uint64_t fieldsOfBadLength = 0;   ///< left out: no encoding of the element has this length
  // Data records.
  uint64_t recordsIn = 0;            ///< of known data templates
  uint64_t recordsPassed = 0;        ///< of these, passed on
  uint64_t recordsOfRefused = 0;     ///< of these, of a refused template
  uint64_t recordsTooLarge = 0;      ///< of these, too large for a message
  uint64_t optionsRecords = 0;       ///< skipped
  uint64_t setsWithoutTemplate = 0;  ///< data of templates that were not heard of (yet)
  // Sequence numbers (RFC 7011, 3.1), per stream.
  uint64_t sequenceGaps = 0;
  uint64_t recordsMissing = 0;  ///< what the gaps amount to
  uint64_t sequenceBack = 0;    ///< late messages, and streams that started over
  bool operator==(const LocalCollectorCounters&) const = default;
};

/// What a local collector remembers of the templates of devices, and the layouts that are published
/// in their place. What is remembered is bounded, whatever comes.
///
/// Templates belong to a stream: one sender's address and port and its observation domain. Layouts
/// that are left after the reduction are numbered here, one id for equal layouts, whoever sent
/// them. An id whose layout nobody uses any more is not given to another one before `holdIs`.
///
/// Anybody can send here, under any address, so a new template is always taken, and others are
/// forgotten for it. A template counts as tried once records of it came. Templates are limited per
/// sender's address and in all. At the limit those are forgotten that were not tried (unless they
/// are only a quarter): first those of the senders that have most templates, and of these the ones
/// that have been silent longest. The message in which the templates of all layouts have to fit is
/// shared in the same way, see `displaceFor`.
class LocalCollectorTemplates {
 public:
  struct Limits {
    size_t templates = 4096;           ///< of all senders
    size_t templatesPerSender = 1024;  ///< of one address
    size_t fields = 256;               ///< of one template
    /// With an id, those that wait for it to be free included. One sender may have caused a quarter
    /// of them, and templates that were not tried three quarters.
    size_t layouts = 1024;
    Seconds templateLifetime{1800};  ///< forgotten when not sent again for three times this long
    /// A layout of which nothing was heard for this long gives its room up to any other: one that
    /// was not tried, and one that was.
    Seconds silence{60};
    Seconds triedSilence{600};
  };
  /// Who has most of what is limited.
  struct Fullest {
    IpGenAddr sender;
    size_t templates = 0;
    uint32_t octets = 0;  ///< of the templates that only this sender uses
  };

  struct Sender {
    size_t templates = 0;
    size_t layouts = 0;  // whose first template was this sender's
  };
  using Senders = std::map<IpGenAddr, Sender>;
  struct Layout {
    FlowTracking::TemplateId id = 0;
    Senders::value_type* cause = nullptr;
    std::map<const Senders::value_type*, size_t> uses;  // templates that reduce to it, by sender
    size_t tried = 0;                                   // of these
    Seconds heard{};                                    // when one of them was last
    bool published = false;
    bool fresh = false;   // published since the last `settle`
    Seconds withdrawn{};  // when
  };
  using Layouts = std::map<PassedLayout, Layout>;

  struct Template {
    /// The id that its records are passed on under; 0: they are not passed on.
    FlowTracking::TemplateId passedAs() const { return layout ? layout->second.id : 0; }

    std::string octets;  // the record as it was sent, to tell a repetition from a change
    bool options = false;
    RecordReduction records;
    Senders::value_type* sender = nullptr;
    Layouts::value_type* layout = nullptr;  // null: its records are skipped
    bool waits = false;                     // for room, or an id
    bool tried = false;                     // records of it came
    uint64_t waitedAt = 0;                  // what `changes_` was at the last try
    uint64_t heard = 0;                     // the datagram that last had it or its records
    Seconds learnt{};
  };
  struct Stream {
    std::map<FlowTracking::TemplateId, Template> templates;  // at least one
    bool sequenceKnown = false;
    uint32_t last = 0;  // sequence number of the last message
    uint32_t next = 0;  // and of the next one
  };
  using StreamKey = std::tuple<IpGenAddr, uint16_t, uint32_t>;  // address, port, domain
  using Publish = std::function<void(FlowTracking::TemplateId, const PassedLayout&)>;
  using Withdraw = std::function<void(FlowTracking::TemplateId)>;

  /// `publish` and `withdraw` are called from inside `learn`, `heardRecords`, `settle`, `advance`
  /// and `roomIs`.
  LocalCollectorTemplates(Ptr<const Ipfix::ElementIdColl> registry, Publish publish,
                          Withdraw withdraw, const Limits& limits,
                          LocalCollectorCounters& counters);
  LocalCollectorTemplates(const LocalCollectorTemplates&) = delete;
  LocalCollectorTemplates& operator=(const LocalCollectorTemplates&) = delete;

  /// A datagram begins, and with it what one datagram may cost.
  void datagramBegins();
  /// Takes a template record, whose header of `headerLen` octets and field specifiers are whole.
  /// False: no record can have such a template.
  bool learn(const StreamKey& key, FlowTracking::TemplateId id, std::string_view record,
             size_t headerLen, bool options);
  Stream* stream(const StreamKey& key);  ///< null: no template of it is known
  /// Called for each set of the template's records, before they are looked at.
  void heardRecords(Template& t);
  /// The collectors have been told of all layouts that were published so far. Until then none of
  /// these is withdrawn: records of it may be waiting behind it.
  void settle();
  /// Time passes; forgets what is due.
  void advance(Seconds d);
  /// Octets that a message has for records, or for the templates of all layouts together.
  void roomIs(uint32_t octets);
  /// Records get the address of their sender; to be chosen before the first template.
  void exporterAddressIs(bool v) { exporterAddress_ = v; }
  /// How long an id is kept after its layout was withdrawn.
  void holdIs(Seconds hold) { hold_ = hold; }

  size_t streams() const { return streams_.size(); }
  size_t templates() const { return templateCount_; }
  size_t layouts() const { return layouts_.size(); }
  const Limits& limits() const { return limits_; }
  uint32_t room() const { return room_; }
  uint32_t publishedLen() const { return publishedLen_; }  ///< octets of all published templates
  Fullest mostTemplates() const;
  Fullest mostOctets() const;

 private:
  using Streams = std::map<StreamKey, Stream>;

  bool roomFor(const IpGenAddr& address);
  void makeRoom(const IpGenAddr* only, size_t limit);
  void publish(Template& t);
  void retry(Template& t, bool displace);
  uint64_t LocalCollectorCounters::*acquire(Template& t, bool displace);
  bool displaceFor(const Template& t, uint32_t len);
  void displace(Layouts::value_type* layout);
  std::map<const Senders::value_type*, uint32_t> ownOctets() const;
  void use(Template& t, Layouts::value_type* layout);
  void release(Template& t);
  void withdraw(Layouts::value_type* layout);
  FlowTracking::TemplateId freeId() const;
  Streams::iterator forget(Streams::iterator stream, FlowTracking::TemplateId id);
  void forgetIdle(Senders::value_type* sender);

  const Ptr<const Ipfix::ElementIdColl> registry_;
  const Publish publish_;
  const Withdraw withdraw_;
  const Limits limits_;
  LocalCollectorCounters& counters_;
  Seconds now_{};
  Seconds hold_{180};
  bool exporterAddress_ = false;
  uint32_t room_ = 1432;  // an MTU of 1500
  Senders senders_;
  Streams streams_;
  size_t templateCount_ = 0;
  uint64_t datagrams_ = 0;
  uint64_t changes_ = 1;   // of what templates wait for
  bool madeRoom_ = false;  // for templates, in this datagram
  int displacements_ = 0;  // searches for room in this datagram
  Layouts layouts_;
  uint32_t publishedLen_ = 0;  // octets of all published templates
  std::map<FlowTracking::TemplateId, Layouts::value_type*> ids_;
  std::vector<Layouts::value_type*> fresh_;  // published since the last `settle`
};

}  // namespace agent
