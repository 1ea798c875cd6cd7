#include "Ipfix/CollectorStats.h"

#include <algorithm>
#include <cstdio>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace Tarn::Ipfix {

using ::Ipfix::IpfixConst;

SetId::SetId(uint16_t value) : value_(value) {
  TARN_ASSERT(value == IpfixConst::optionsTemplateSetId() || value == IpfixConst::templateSetId() ||
              value > 255);
}
bool SetId::valid(uint16_t value) {
  return value == IpfixConst::optionsTemplateSetId() || value == IpfixConst::templateSetId() ||
         value >= IpfixConst::firstDataSetId();
}
namespace {
constexpr const char* setIdType = "Tarn::Ipfix::SetId";
constexpr const char* collectorInfoType = "Tarn::Ipfix::CollectorInfo";
constexpr const char* setEntryType = "Tarn::Ipfix::CollectorSetStatisticsEntry";
}  // namespace
std::string SetId::strep() const { return ValueWriter(setIdType).attr("value", value_).str(); }
std::optional<SetId> SetId::fromString(std::string_view text) {
  uint16_t value = 0;
  if (!fromValueText(setIdType, text, value) || !valid(value)) return std::nullopt;
  return SetId(value);
}

CollectorInfo::CollectorInfo(const IpGenAddr& addr, uint16_t port)
    : family_(static_cast<uint8_t>(addr.family())), port_(port) {
  if (addr.isIpv4()) {
    for (size_t i = 0; i < 4; ++i)
      addr_[i] = static_cast<uint8_t>(addr.ipAddr().value() >> (24 - 8 * i));
  } else if (addr.isIpv6()) {
    addr_ = addr.ip6Addr().octets();
  }
}
IpGenAddr CollectorInfo::addr() const {
  if (family_ == 6) return Ip6Addr(addr_);
  if (family_ != 4) return {};
  uint32_t v4 = 0;
  for (size_t i = 0; i < 4; ++i) v4 = v4 << 8 | addr_[i];
  return IpAddr(v4);
}
std::string CollectorInfo::stringValue() const {
  const IpGenAddr a = addr();
  if (a.isIpv6()) return Ip6AndPort{a.ip6Addr(), port_}.stringValue();
  return IpAndPort{a.ipAddr(), port_}.stringValue();
}
std::string CollectorInfo::strep() const {
  return ValueWriter(collectorInfoType).attr("addr", addr()).attr("port", port_).str();
}
std::optional<CollectorInfo> CollectorInfo::fromString(std::string_view text) {
  if (const auto v4 = IpAndPort::fromString(text)) return fromIpAndPort(*v4);
  if (const auto v6 = Ip6AndPort::fromString(text)) return fromIp6AndPort(*v6);
  IpGenAddr addr;
  uint16_t port = 0;
  ValueReader reader(collectorInfoType, text);
  if (!reader.attr("addr", addr).attr("port", port).ok()) return std::nullopt;
  return CollectorInfo(addr, port);
}
std::strong_ordering CollectorInfo::operator<=>(const CollectorInfo& o) const {
  if (auto c = family_ <=> o.family_; c != 0) return c;
  if (auto c = addr_ <=> o.addr_; c != 0) return c;  // network order sorts as the address does
  return port_ <=> o.port_;
}

void CollectorStatisticsKey::store(Storage& s, uint32_t& len, std::string_view name) {
  const size_t sz = name.size();
  TARN_ASSERT(sz <= StringIndex::max() + 1);
  s.fill(0);
  std::copy(name.begin(), name.end(), s.begin());
  len = static_cast<uint32_t>(sz);
}
void CollectorStatisticsKey::put(Storage& s, uint32_t& len, StringIndex i, uint8_t c) {
  s[i.value()] = c;
  len = std::max<uint32_t>(len, i.value() + 1U);
}
void CollectorStatisticsKey::del(Storage& s, uint32_t& len, StringIndex i) {
  s[i.value()] = 0;
  if (len == i.value() + 1U) --len;
}
std::strong_ordering CollectorStatisticsKey::operator<=>(const CollectorStatisticsKey& o) const {
  if (auto c = tracker() <=> o.tracker(); c != 0) return c;
  if (auto c = exporter() <=> o.exporter(); c != 0) return c;
  return collector_ <=> o.collector_;
}
std::string CollectorStatisticsKey::stringValue() const {
  return std::string(tracker()) + ' ' + std::string(exporter()) + ' ' + collector_.stringValue();
}

namespace {
template <class Items, class TextOf>
std::string arrayText(const Items& items, size_t used, TextOf textOf) {
  std::string out = "{";
  for (size_t i = 0; i < used; ++i)
    out += (i > 0 ? ", " : "") + std::to_string(i) + ": " + textOf(items[i]);
  return out + "}";
}
std::string octetText(uint8_t c) { return std::to_string(c); }
}  // namespace

std::string CollectorStatisticsKey::strep() const {
  return ValueWriter("Tarn::Ipfix::CollectorStatisticsKey")
      .raw("collector", collector_.strep())
      .raw("trackerStorage", arrayText(trackerStorage_, trackerLen_, octetText))
      .raw("exporterStorage", arrayText(exporterStorage_, exporterLen_, octetText))
      .str();
}
CollectorStatisticsKey CollectorStatisticsKey::fromStrep(std::string_view) {
  assertionFailed("No String constructor for CollectorStatisticsKey - has collection", __FILE__,
                  __LINE__);
}

std::string CollectorSetStatisticsEntry::strep() const {
  return ValueWriter(setEntryType)
      .attr("setId", setId_)
      .attr("exportedFlowRecordCount", records_)
      .attr("exportedTemplateCount", templates_)
      .str();
}
std::optional<CollectorSetStatisticsEntry> CollectorSetStatisticsEntry::fromString(
    std::string_view text) {
  CollectorSetStatisticsEntry e;
  ValueReader reader(setEntryType, text);
  reader.attr("setId", e.setId_).attr("exportedFlowRecordCount", e.records_);
  if (!reader.attr("exportedTemplateCount", e.templates_).ok()) return std::nullopt;
  return e;
}

std::optional<CollectorStatisticsEntry> CollectorStatisticsEntry::fromOctets(
    SharedTable::Octets octets) {
  CollectorStatisticsEntry e;
  if (octets.size() != sizeof e) return std::nullopt;
  std::memcpy(&e, octets.data(), sizeof e);
  if (!e.key_.valid() || e.used_ > slots) return std::nullopt;
  return e;
}

uint8_t CollectorStatisticsEntry::indexForSetId(SetId id) const {
  const size_t n = std::min<size_t>(used_, slots);
  for (size_t i = 0; i < n; ++i)
    if (setEntryStorage_[i].setId() == id.value()) return static_cast<uint8_t>(i);
  return SetIndex::none;
}
SetIndex CollectorStatisticsEntry::maybeNewIndexForSetId(SetId id) const {
  if (const uint8_t i = indexForSetId(id); i != SetIndex::none) return SetIndex(i);
  if (nextIdx_ != SetIndex::none && setEntryStorage_[SetIndex(nextIdx_).value()].setId() == 0)
    return SetIndex(nextIdx_);
  for (uint32_t i = 0; i < used_; ++i)
    if (setEntryStorage_[i].setId() == 0) return SetIndex(i);
  return SetIndex(used_);
}
bool CollectorStatisticsEntry::hasRoomFor(SetId id) const {
  if (used_ < slots || indexForSetId(id) != SetIndex::none) return true;
  return std::any_of(setEntryStorage_.begin(), setEntryStorage_.end(),
                     [](const auto& e) { return e.setId() == 0; });
}
CollectorSetStatisticsEntry CollectorStatisticsEntry::setEntry(SetId id) const {
  const uint8_t i = indexForSetId(id);
  return i == SetIndex::none ? CollectorSetStatisticsEntry{} : setEntryStorage_[i];
}
void CollectorStatisticsEntry::setEntryIs(const CollectorSetStatisticsEntry& e) {
  setEntryStorageIs(maybeNewIndexForSetId(SetId(e.setId())), e);
}
bool CollectorStatisticsEntry::setEntryInc(SetId id, uint64_t records, uint64_t templates) {
  if (!hasRoomFor(id)) return false;
  CollectorSetStatisticsEntry set = setEntry(id);
  set.setIdIs(id.value());
  set.exportedFlowRecordCountInc(records);
  set.exportedTemplateCountInc(templates);
  setEntryIs(set);
  return true;
}
CollectorSetStatisticsEntry CollectorStatisticsEntry::setEntryDel(SetId id) {
  const uint8_t i = indexForSetId(id);
  if (i == SetIndex::none) return {};
  nextIdx_ = i;
  const CollectorSetStatisticsEntry old = setEntryStorage_[i];
  setEntryStorageDel(SetIndex(i));
  return old;
}
void CollectorStatisticsEntry::setEntryStorageIs(SetIndex i, const CollectorSetStatisticsEntry& e) {
  setEntryStorage_[i.value()] = e;
  used_ = std::max<uint32_t>(used_, i.value() + 1U);
}
void CollectorStatisticsEntry::setEntryStorageDelAll() {
  setEntryStorage_ = {};
  used_ = 0;
  nextIdx_ = SetIndex::none;
}
void CollectorStatisticsEntry::clear(double now) {
  messages_ = records_ = octets_ = 0;
  for (auto& e : setEntryStorage_) e = CollectorSetStatisticsEntry(e.setId());
  lastCleared_ = now;
}

namespace {
std::string ageText(double now, double then) {
  if (then == 0) return "inf";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.0f", now - then);
  return buf;
}
}  // namespace

std::string CollectorStatisticsEntry::readable(double now) const {
  std::string out = "[" + key_.stringValue() + "] msgs: " + std::to_string(messages_) +
                    ", flows: " + std::to_string(records_) +
                    ", octets: " + std::to_string(octets_) +
                    ", last message: " + ageText(now, lastSent_) +
                    ", template: " + ageText(now, lastTemplateSent_) +
                    ", data: " + ageText(now, lastDataRecordSent_) +
                    ", options data: " + ageText(now, lastOptionsDataSent_) +
                    ", cleared: " + ageText(now, lastCleared_);
  for (uint32_t i = 0; i < used_; ++i) {
    const CollectorSetStatisticsEntry& e = setEntryStorage_[i];
    if (e.setId() == 0) continue;
    out += ", set " + std::to_string(e.setId()) +
           ": (flows: " + std::to_string(e.exportedFlowRecordCount()) +
           ", templates: " + std::to_string(e.exportedTemplateCount()) + ")";
  }
  return out;
}
std::string CollectorStatisticsEntry::strep() const {
  return ValueWriter("Tarn::Ipfix::CollectorStatisticsEntry")
      .raw("key", key_.strep())
      .attr("exportedMessageTotalCount", messages_)
      .attr("exportedFlowRecordTotalCount", records_)
      .attr("exportedOctetTotalCount", octets_)
      .attr("lastSentTime", lastSent_)
      .attr("lastTemplateSentTime", lastTemplateSent_)
      .attr("lastDataRecordSentTime", lastDataRecordSent_)
      .attr("lastOptionsDataSentTime", lastOptionsDataSent_)
      .attr("lastClearedTime", lastCleared_)
      .attr("nextIdx", nextIdx_)
      .raw("setEntryStorage",
           arrayText(setEntryStorage_, used_, [](const auto& e) { return e.strep(); }))
      .str();
}
CollectorStatisticsEntry CollectorStatisticsEntry::fromStrep(std::string_view) {
  assertionFailed("No String constructor for CollectorStatisticsEntry - has collection", __FILE__,
                  __LINE__);
}

namespace {
template <class T>
SharedTable::Octets octetsOf(const T& v) {
  return std::as_bytes(std::span(&v, 1));
}
}  // namespace

CollectorStatistics::CollectorStatistics(Ptr<SharedTable> table) : table_(std::move(table)) {
  TARN_ASSERT(table_->keyLen() == keyLen && table_->valueLen() == valueLen);
}
std::optional<CollectorStatisticsEntry> CollectorStatistics::stats(
    const CollectorStatisticsKey& key) const {
  std::optional<CollectorStatisticsEntry> entry(std::in_place);
  if (!table_->get(octetsOf(key), std::as_writable_bytes(std::span(&*entry, 1)))) entry.reset();
  return entry;
}
void CollectorStatistics::statsIs(const CollectorStatisticsEntry& entry) {
  if (table_->put(octetsOf(entry.key()), octetsOf(entry))) {
    notify(&Watcher::handleStats, entry.key());
  } else if (!fullTraced_) {
    fullTraced_ = true;
    traceOf(TraceLevel::error, "CollectorStatistics", "statsIs", {}, "the table is full at ",
            table_->capacity(), " entries; not counted: ", entry.key().stringValue());
  }
}
void CollectorStatistics::statsDel(const CollectorStatisticsKey& key) {
  if (!table_->del(octetsOf(key))) return;
  fullTraced_ = false;
  notify(&Watcher::handleStats, CollectorStatisticsKey(key));
}
void CollectorStatistics::statsDelAll() {
  std::vector<CollectorStatisticsKey> keys;
  table_->each([&](SharedTable::Octets key, SharedTable::Octets) {
    std::memcpy(&keys.emplace_back(), key.data(), sizeof(CollectorStatisticsKey));
  });
  for (const auto& key : keys) statsDel(key);
}
AttrRows CollectorStatistics::attrRows() const {
  static constexpr AttrRow rows[] = {row<&CollectorStatistics::size>("size")};
  return rows;
}
Ptr<CollectorStatistics> collectorStatisticsFactory(Ptr<SharedTable> table) {
  return make<CollectorStatistics>(std::move(table));
}

}  // namespace Tarn::Ipfix
