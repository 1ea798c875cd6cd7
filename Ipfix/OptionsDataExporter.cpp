#include "Ipfix/OptionsDataExporter.h"

#include <ostream>
#include <tuple>

namespace FlowTracking {

std::string toText(OptionsDataScope scope) {
  return scope == OptionsDataScope::scopeGlobal ? "scopeGlobal" : "scopeTracker";
}
bool fromText(std::string_view text, OptionsDataScope& scope) {
  for (const auto s : {OptionsDataScope::scopeGlobal, OptionsDataScope::scopeTracker}) {
    if (text != toText(s)) continue;
    scope = s;
    return true;
  }
  return false;
}
std::ostream& operator<<(std::ostream& out, OptionsDataScope scope) { return out << toText(scope); }

std::string toText(const Ptr<const DataRecord>& record) {
  std::string text;
  if (!record) return text;
  for (const char c : record->data())
    for (const int shift : {4, 0})
      text += "0123456789abcdef"[static_cast<uint8_t>(c) >> shift & 15];
  return text;
}

// --- OptionsDataSource ---

uint32_t OptionsDataSource::slotOf_p(const DataRecord& record) const {
  if (!elsewhere_.empty())
    if (auto it = elsewhere_.find(&record); it != elsewhere_.end()) return it->second;
  const uint32_t slot = record.slot_;
  return slot < slot_.size() && slot_[slot].get() == &record ? slot : none;
}
void OptionsDataSource::dataRecordIs(const Record& record) {
  if (slotOf_p(*record) != none) return;
  const auto slot = static_cast<uint32_t>(slot_.size());
  if (record->slot_ == none) {
    record->slot_ = slot;
  } else {
    elsewhere_.emplace(record.get(), slot);
  }
  slot_.push_back(record);
  ++live_;
}
void OptionsDataSource::dataRecordDel(const Record& record) {
  const uint32_t slot = slotOf_p(*record);
  if (slot == none) return;
  if (elsewhere_.empty() || elsewhere_.erase(record.get()) == 0) record->slot_ = none;
  const Record last = std::move(slot_[slot]);  // may be the only reference: goes at the end
  --live_;
  if (slot_.size() > 64 && live_ < slot_.size() / 2) compact_p();
}
void OptionsDataSource::dataRecordDelAll() {
  for (const Record& record : slot_)
    if (record && !elsewhere_.contains(record.get())) record->slot_ = none;
  elsewhere_.clear();
  slot_.clear();
  live_ = 0;
}
void OptionsDataSource::compact_p() {
  uint32_t to = 0;
  for (Record& record : slot_) {
    if (!record) continue;
    if (auto it = elsewhere_.find(record.get()); it != elsewhere_.end()) {
      it->second = to;
    } else {
      record->slot_ = to;
    }
    std::swap(slot_[to++], record);
  }
  slot_.resize(to);
}
bool OptionsDataSource::recordsFrom_p(const std::string* key, bool behind,
                                      const AttrRow::PartVisitor& visit) const {
  uint32_t place = 0;
  if (key && !platform::fromText(*key, place)) return false;
  if (key && behind) ++place;
  for (bool more = true; more && place < slot_.size(); ++place)
    if (slot_[place]) more = visit(std::to_string(place), nullptr, toText(slot_[place]));
  return true;
}
AttrRows OptionsDataSource::attrRows() const {
  using S = OptionsDataSource;
  static constexpr AttrRow rows[] = {
      row<&S::name>("name"), row<&S::dataSetId>("dataSetId"), row<&S::dataRecords>("dataRecords"),
      pagedRow<&S::recordsFrom_p>("dataRecord"), row<&S::version, &S::versionIs>("version")};
  return rows;
}
Ptr<OptionsDataSource> optionsDataSourceFactory(const std::string& name, TemplateId templateId) {
  return make<OptionsDataSource>(name, templateId);
}

// --- Collections ---

Ptr<OptionsDataSourceColl> optionsDataSourceCollFactory(OptionsDataScope scope) {
  return make<OptionsDataSourceColl>(scope);
}
Ptr<OptionsDataSource> OptionsDataSourceColl::sourceIs(const std::string& name,
                                                       TemplateId templateId) {
  auto s = source(name);
  if (!s) {
    s = optionsDataSourceFactory(name, templateId);
    put(source_, name, s, &Watcher::handleSource);
  } else if (s->dataSetId() != templateId) {
    throw ReinstantiationError("source " + toQuoted(name) + " exists with template id " +
                               std::to_string(s->dataSetId()) + ", not " +
                               std::to_string(templateId));
  }
  return s;
}
AttrRows OptionsDataSourceColl::attrRows() const {
  using C = OptionsDataSourceColl;
  static constexpr AttrRow rows[] = {row<&C::scope>("scope"), mapRow<&C::source_>("source")};
  return rows;
}

void OptionsDataUpdate::addUpdate(TemplateId setId, Ptr<const DataRecord> record) {
  if (announcing_) {
    following_.emplace_back(setId, std::move(record));
    return;
  }
  announcing_ = true;
  for (size_t next = 0;; ++next) {
    setId_ = setId;
    record_ = std::move(record);
    set(version_, version_ + 1, &Watcher::handleVersion);
    if (next == following_.size()) break;
    std::tie(setId, record) = following_[next];
  }
  if (!following_.empty()) following_.clear();
  announcing_ = false;
}
AttrRows OptionsDataUpdate::attrRows() const {
  using U = OptionsDataUpdate;
  static constexpr AttrRow rows[] = {row<&U::scope>("scope"), row<&U::setId, &U::setIdIs>("setId"),
                                     row<&U::record>("record"),
                                     row<&U::version, &U::versionIs>("version")};
  return rows;
}
Ptr<OptionsDataUpdate> optionsDataUpdateFactory(OptionsDataScope scope) {
  return make<OptionsDataUpdate>(scope);
}

AttrRows OptionsDataContainer::attrRows() const {
  using C = OptionsDataContainer;
  static constexpr AttrRow rows[] = {row<&C::name>("name"), mapRow<&C::data_, true>("data"),
                                     mapRow<&C::update_, true>("update")};
  return rows;
}
Ptr<OptionsDataContainer> optionsDataContainerFactory(const std::string& name) {
  return make<OptionsDataContainer>(name);
}

namespace {
/// The owned one, which must be of that scope, or where there is none a new one that `own` takes.
template <class T, class Own>
Ptr<T> ofScope(Ptr<T> owned, OptionsDataScope scope, Own&& own) {
  if (!owned) {
    owned = make<T>(scope);
    own(owned);
  } else if (owned->scope() != scope) {
    throw ReinstantiationError("exists with scope " + toText(owned->scope()) + ", not " +
                               toText(scope));
  }
  return owned;
}
}  // namespace

Ptr<OptionsDataSourceColl> TrackerOptionsData::dataIs(OptionsDataScope scope) {
  return ofScope(data_, scope,
                 [this](const auto& made) { set(data_, made, &Watcher::handleData); });
}
Ptr<OptionsDataUpdate> TrackerOptionsData::updateIs(OptionsDataScope scope) {
  return ofScope(update_, scope,
                 [this](const auto& made) { set(update_, made, &Watcher::handleUpdate); });
}
AttrRows TrackerOptionsData::attrRows() const {
  using T = TrackerOptionsData;
  static constexpr AttrRow rows[] = {row<&T::name>("name"), refRow<&T::parent_>("parent"),
                                     childRow<&T::data>("data"), childRow<&T::update>("update")};
  return rows;
}
Ptr<TrackerOptionsData> trackerOptionsDataFactory(const std::string& name) {
  return make<TrackerOptionsData>(name);
}

Ptr<OptionsDataSourceColl> OptionsDataAll::globalDataIs(OptionsDataScope scope) {
  return ofScope(globalData_, scope,
                 [this](const auto& made) { set(globalData_, made, &Watcher::handleGlobalData); });
}
Ptr<OptionsDataUpdate> OptionsDataAll::globalUpdateIs(OptionsDataScope scope) {
  return ofScope(globalUpdate_, scope, [this](const auto& made) {
    set(globalUpdate_, made, &Watcher::handleGlobalUpdate);
  });
}
Ptr<TrackerOptionsData> OptionsDataAll::trackerDataIs(const std::string& name) {
  auto data = trackerData(name);
  if (!data) {
    data = make<TrackerOptionsData>(name, this);
    put(trackerData_, name, data, &Watcher::handleTrackerData);
  }
  return data;
}
void OptionsDataAll::trackerDataDel(const std::string& name) {
  const auto old = trackerData(name);
  if (!old) return;
  old->retire();
  del(trackerData_, name, &Watcher::handleTrackerData);
}
void OptionsDataAll::trackerDataDelAll() {
  const Ptr<OptionsDataAll> hold(this);
  for (const auto& name : keysOf(trackerData_)) trackerDataDel(name);
}
AttrRows OptionsDataAll::attrRows() const {
  using A = OptionsDataAll;
  static constexpr AttrRow rows[] = {
      {.name = "name", .get = [](const Entity&) { return toQuoted(name()); }},
      childRow<&A::globalData>("globalData"),
      childRow<&A::globalUpdate>("globalUpdate"),
      mapRow<&A::trackerData_>("trackerData")};
  return rows;
}
Ptr<OptionsDataAll> optionsDataAllFactory() { return make<OptionsDataAll>(); }

}  // namespace FlowTracking
