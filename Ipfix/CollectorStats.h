#pragma once
#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Entity.h"
#include "platform/Ip.h"
#include "platform/IpfixTypes.h"
#include "platform/SharedTable.h"

/// What was exported to each collector of each exporter of each tracker, in a table that other
/// processes read. The members of `CollectorStatisticsKey` and `CollectorStatisticsEntry` are the
/// layout of a record in shared memory: fixed sizes, host byte order, every padding octet zero.
/// docs/shared-memory.md describes that layout for readers in other languages; who changes it here
/// raises the layout version there.
namespace Tarn::Ipfix {

/// An index of 8 bits, 0 to `maximum`; a value outside raises std::range_error with the text of its
/// `Tag`. Addition is modulo 256, and its result is checked like any other.
template <class Tag, unsigned maximum>
class Index {
 public:
  static constexpr unsigned min() { return 0; }
  static constexpr unsigned max() { return maximum; }
  /// Stands for "no index" where one is kept in 8 bits.
  static constexpr uint8_t none = 255;
  explicit Index(unsigned value) : value_(static_cast<uint8_t>(value)) {
    if (value > max()) throw std::range_error(Tag::outside);
  }
  uint8_t value() const { return value_; }
  Index operator+(Index n) const { return Index(static_cast<uint8_t>(value_ + n.value_)); }
  std::string stringValue() const { return std::to_string(value_); }
  std::string strep() const { return ValueWriter(Tag::type).attr("value", value_).str(); }
  /// Reads both forms; nothing for a value outside.
  static std::optional<Index> fromString(std::string_view text) {
    unsigned value = 0;
    if (!fromValueText(Tag::type, text, value) || value > max()) return std::nullopt;
    return Index(value);
  }
  auto operator<=>(const Index&) const = default;

 private:
  uint8_t value_;
};

struct StringIndexTag {
  static constexpr const char* type = "Tarn::Ipfix::StringIndex";
  static constexpr const char* outside =
      "StringIndex::value < StringIndex::min or > StringIndex::max not allowed";
};
/// The place of an octet in a name of the key.
using StringIndex = Index<StringIndexTag, 127>;

struct SetIndexTag {
  static constexpr const char* type = "Tarn::Ipfix::SetIndex";
  static constexpr const char* outside =
      "SetIndex::value < SetIndex::min or > SetIndex::max not allowed";
};
/// The place of one of the 20 slots for set ids in an entry.
using SetIndex = Index<SetIndexTag, 19>;

/// A set id that messages may carry: 2, 3 or above 255; any other asserts.
class TARN_API SetId {
 public:
  explicit SetId(uint16_t value);
  static bool valid(uint16_t value);
  uint16_t value() const { return value_; }
  std::string stringValue() const { return std::to_string(value_); }
  std::string strep() const;
  /// Reads both forms; nothing for a value that messages may not carry.
  static std::optional<SetId> fromString(std::string_view text);
  auto operator<=>(const SetId&) const = default;

 private:
  uint16_t value_;
};

/// A collector's transport address.
class TARN_API CollectorInfo {
 public:
  CollectorInfo() = default;
  CollectorInfo(const IpGenAddr& addr, uint16_t port);
  static CollectorInfo fromIpAndPort(const IpAndPort& a) { return {a.addr, a.port}; }
  static CollectorInfo fromIp6AndPort(const Ip6AndPort& a) { return {a.addr, a.port}; }

  IpGenAddr addr() const;
  uint16_t port() const { return port_; }
  /// 10.0.0.1:4739 or [2001:db8::1]:4739
  std::string stringValue() const;
  std::string strep() const;  ///< the "Value(...)" form
  /// Reads both forms.
  static std::optional<CollectorInfo> fromString(std::string_view text);
  bool operator==(const CollectorInfo&) const = default;
  /// By family and address, then port.
  std::strong_ordering operator<=>(const CollectorInfo& o) const;

 private:
  uint8_t family_ = 0;  // 4, 6, or 0 for none
  uint8_t pad_ = 0;
  uint16_t port_ = 0;
  std::array<uint8_t, 16> addr_{};  // network order; IPv4 in the first four octets
};
static_assert(sizeof(CollectorInfo) == 20);

/// The table's key. Names hold at most 128 octets; a longer one asserts.
class TARN_API CollectorStatisticsKey {
 public:
  static constexpr size_t nameMax = StringIndex::max() + 1;
  using Storage = std::array<uint8_t, nameMax>;

  CollectorStatisticsKey() = default;
  CollectorStatisticsKey(std::string_view tracker, std::string_view exporter,
                         const CollectorInfo& collector)
      : collector_(collector) {
    trackerIs(tracker);
    exporterIs(exporter);
  }
  const CollectorInfo& collector() const { return collector_; }
  void collectorIs(const CollectorInfo& c) { collector_ = c; }
  std::string_view tracker() const { return text(trackerStorage_, trackerLen_); }
  void trackerIs(std::string_view name) { store(trackerStorage_, trackerLen_, name); }
  std::string_view exporter() const { return text(exporterStorage_, exporterLen_); }
  void exporterIs(std::string_view name) { store(exporterStorage_, exporterLen_, name); }

  /// Single octets of the names. Behind a name's end each reads as 0. Who writes there lengthens
  /// the name, and zeros fill what lies between. A deleted octet becomes 0; when it was the last of
  /// the name, the name becomes shorter.
  uint8_t trackerStorage(StringIndex i) const { return trackerStorage_[i.value()]; }
  uint8_t exporterStorage(StringIndex i) const { return exporterStorage_[i.value()]; }
  void trackerStorageIs(StringIndex i, uint8_t c) { put(trackerStorage_, trackerLen_, i, c); }
  void trackerStorageDel(StringIndex i) { del(trackerStorage_, trackerLen_, i); }
  void trackerStorageDelAll() { trackerIs({}); }
  void exporterStorageIs(StringIndex i, uint8_t c) { put(exporterStorage_, exporterLen_, i, c); }
  void exporterStorageDel(StringIndex i) { del(exporterStorage_, exporterLen_, i); }
  void exporterStorageDelAll() { exporterIs({}); }

  /// Whether the lengths of the names are possible. They always are in a key that this process
  /// made; one that was read from shared memory may hold anything.
  bool valid() const { return trackerLen_ <= nameMax && exporterLen_ <= nameMax; }
  bool operator==(const CollectorStatisticsKey&) const = default;
  /// By tracker, exporter, collector.
  std::strong_ordering operator<=>(const CollectorStatisticsKey& o) const;

  std::string stringValue() const;  ///< "<tracker> <exporter> <collector>"
  std::string strep() const;        ///< the "Value(...)" form, which has no parser: asserts
  [[noreturn]] static CollectorStatisticsKey fromStrep(std::string_view text);

 private:
  static std::string_view text(const Storage& s, uint32_t len) {
    return {reinterpret_cast<const char*>(s.data()), len};
  }
  static void store(Storage& s, uint32_t& len, std::string_view name);
  static void put(Storage& s, uint32_t& len, StringIndex i, uint8_t c);
  static void del(Storage& s, uint32_t& len, StringIndex i);

  CollectorInfo collector_;
  uint32_t trackerLen_ = 0;
  uint32_t exporterLen_ = 0;
  Storage trackerStorage_{};  // zero behind the name: equal keys are equal octets
  Storage exporterStorage_{};
};
static_assert(sizeof(CollectorStatisticsKey) == 284);

/// The counters of one set id. A slot with set id 0 is free.
class TARN_API CollectorSetStatisticsEntry {
 public:
  CollectorSetStatisticsEntry() = default;
  explicit CollectorSetStatisticsEntry(uint16_t setId, uint64_t records = 0, uint64_t templates = 0)
      : setId_(setId), records_(records), templates_(templates) {}
  uint16_t setId() const { return setId_; }
  void setIdIs(uint16_t v) { setId_ = v; }
  /// Data records sent in sets of this id.
  uint64_t exportedFlowRecordCount() const { return records_; }
  void exportedFlowRecordCountIs(uint64_t v) { records_ = v; }
  void exportedFlowRecordCountInc(uint64_t n) { records_ += n; }
  /// Templates sent in sets of this id.
  uint64_t exportedTemplateCount() const { return templates_; }
  void exportedTemplateCountIs(uint64_t v) { templates_ = v; }
  void exportedTemplateCountInc(uint64_t n) { templates_ += n; }
  std::string strep() const;  ///< the "Value(...)" form
  static std::optional<CollectorSetStatisticsEntry> fromString(std::string_view text);
  bool operator==(const CollectorSetStatisticsEntry&) const = default;

 private:
  uint16_t setId_ = 0;
  std::array<uint8_t, 6> pad_{};
  uint64_t records_ = 0;
  uint64_t templates_ = 0;
};
static_assert(sizeof(CollectorSetStatisticsEntry) == 24);

/// The table's value. Times are UTC seconds, 0 for never; counters only grow until cleared.
class TARN_API CollectorStatisticsEntry {
 public:
  static constexpr size_t slots = SetIndex::max() + 1;

  CollectorStatisticsEntry() = default;
  explicit CollectorStatisticsEntry(const CollectorStatisticsKey& key) : key_(key) {}
  /// An entry from a record of the table; nothing when its length or a count in it is impossible.
  static std::optional<CollectorStatisticsEntry> fromOctets(SharedTable::Octets octets);

  const CollectorStatisticsKey& key() const { return key_; }
  uint64_t exportedMessageTotalCount() const { return messages_; }
  void exportedMessageTotalCountIs(uint64_t v) { messages_ = v; }
  void exportedMessageTotalCountInc(uint64_t n) { messages_ += n; }
  uint64_t exportedFlowRecordTotalCount() const { return records_; }
  void exportedFlowRecordTotalCountIs(uint64_t v) { records_ = v; }
  void exportedFlowRecordTotalCountInc(uint64_t n) { records_ += n; }
  uint64_t exportedOctetTotalCount() const { return octets_; }
  void exportedOctetTotalCountIs(uint64_t v) { octets_ = v; }
  void exportedOctetTotalCountInc(uint64_t n) { octets_ += n; }
  double lastSentTime() const { return lastSent_; }
  void lastSentTimeIs(double t) { lastSent_ = t; }
  double lastTemplateSentTime() const { return lastTemplateSent_; }
  void lastTemplateSentTimeIs(double t) { lastTemplateSent_ = t; }
  double lastDataRecordSentTime() const { return lastDataRecordSent_; }
  void lastDataRecordSentTimeIs(double t) { lastDataRecordSent_ = t; }
  double lastOptionsDataSentTime() const { return lastOptionsDataSent_; }
  void lastOptionsDataSentTimeIs(double t) { lastOptionsDataSent_ = t; }
  double lastClearedTime() const { return lastCleared_; }
  void lastClearedTimeIs(double t) { lastCleared_ = t; }
  /// The slot whose set id was deleted last, which the next new one gets; 255 where there is none.
  uint8_t nextIdx() const { return nextIdx_; }
  void nextIdxIs(uint8_t v) { nextIdx_ = v; }
  /// How many slots were ever taken, 0 to 20: those behind them are untouched.
  uint32_t setEntryCount() const { return used_; }

  /// The slot that holds the id, or SetIndex::none.
  uint8_t indexForSetId(SetId id) const;
  /// The slot that holds the id or would; raises std::range_error when 20 other ids have one.
  SetIndex maybeNewIndexForSetId(SetId id) const;
  /// Whether the id has a slot or can get one, so that `setEntryIs` would not raise.
  bool hasRoomFor(SetId id) const;
  /// The id's counters, or an all-zero entry.
  CollectorSetStatisticsEntry setEntry(SetId id) const;
  void setEntryIs(const CollectorSetStatisticsEntry& e);
  /// Adds to the id's counters. False where 20 other ids have the slots: the totals alone then know
  /// of it. A tracker may well use more templates than there are slots, and a device's choice of
  /// them must not stop the agent, so that the writers skip such an id instead of raising.
  bool setEntryInc(SetId id, uint64_t records, uint64_t templates);
  /// Removes the id's counters and returns them; an all-zero entry when it had none.
  CollectorSetStatisticsEntry setEntryDel(SetId id);
  const CollectorSetStatisticsEntry& setEntryStorage(SetIndex i) const {
    return setEntryStorage_[i.value()];
  }
  void setEntryStorageIs(SetIndex i, const CollectorSetStatisticsEntry& e);
  void setEntryStorageDel(SetIndex i) { setEntryStorage_[i.value()] = {}; }
  void setEntryStorageDelAll();

  /// All counters 0 and `lastClearedTime` now; set ids keep their slots.
  void clear(double now);

  /// One line for people; `now` is what ages count from.
  std::string readable(double now) const;
  std::string strep() const;  ///< the "Value(...)" form, which has no parser: asserts
  [[noreturn]] static CollectorStatisticsEntry fromStrep(std::string_view text);
  bool operator==(const CollectorStatisticsEntry&) const = default;

 private:
  CollectorStatisticsKey key_;
  uint32_t pad0_ = 0;
  uint64_t messages_ = 0;
  uint64_t records_ = 0;
  uint64_t octets_ = 0;
  double lastSent_ = 0;
  double lastTemplateSent_ = 0;
  double lastDataRecordSent_ = 0;
  double lastOptionsDataSent_ = 0;
  double lastCleared_ = 0;
  uint8_t nextIdx_ = SetIndex::none;
  std::array<uint8_t, 3> pad1_{};
  uint32_t used_ = 0;
  std::array<CollectorSetStatisticsEntry, slots> setEntryStorage_{};
};
static_assert(sizeof(CollectorStatisticsEntry) == 840);
static_assert(std::is_trivially_copyable_v<CollectorStatisticsEntry>);

/// The statistics table, as the library's writers use it.
class TARN_API CollectorStatistics final : public Entity {
 public:
  static constexpr size_t keyLen = sizeof(CollectorStatisticsKey);
  static constexpr size_t valueLen = sizeof(CollectorStatisticsEntry);

  class TARN_API Watcher : public EntityWatcher<CollectorStatistics> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleStats(const CollectorStatisticsKey& /*key*/) {}
  };

  /// `table` has the key and value lengths above (asserted).
  explicit CollectorStatistics(Ptr<SharedTable> table);

  std::optional<CollectorStatisticsEntry> stats(const CollectorStatisticsKey& key) const;
  /// Inserts or replaces. A full table is traced once and the entry is not counted: export goes on.
  void statsIs(const CollectorStatisticsEntry& entry);
  void statsDel(const CollectorStatisticsKey& key);
  void statsDelAll();
  size_t size() const { return table_->size(); }

  AttrRows attrRows() const override;

 private:
  Ptr<SharedTable> table_;
  bool fullTraced_ = false;
};
TARN_API Ptr<CollectorStatistics> collectorStatisticsFactory(Ptr<SharedTable> table);

}  // namespace Tarn::Ipfix

template <>
struct std::hash<Tarn::Ipfix::CollectorStatisticsKey> {
  size_t operator()(const Tarn::Ipfix::CollectorStatisticsKey& k) const noexcept {
    return std::hash<std::string_view>{}({reinterpret_cast<const char*>(&k), sizeof k});
  }
};
