#include "Ipfix/OptionsDataExporter.h"

#include <ostream>

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
  if (elsewhere_.erase(record.get()) == 0) record->slot_ = none;
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
AttrRows OptionsDataSource::attrRows() const {
  using S = OptionsDataSource;
  static constexpr AttrRow rows[] = {
      row<&S::name>("name"),
      row<&S::dataSetId>("dataSetId"),
      row<&S::dataRecords>("dataRecords"),
      row<&S::version>("version"),
  };
  return rows;
}
Ptr<OptionsDataSource> optionsDataSourceFactory(const std::string& name, TemplateId templateId) {
  return Ptr<OptionsDataSource>::adopt(new OptionsDataSource(name, templateId));
}

// --- Collections ---

Ptr<OptionsDataSourceColl> optionsDataSourceCollFactory(OptionsDataScope scope) {
  return Ptr<OptionsDataSourceColl>::adopt(new OptionsDataSourceColl(scope));
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
namespace {
using SourceMap =
    const std::map<std::string, Ptr<OptionsDataSource>>& (OptionsDataSourceColl::*)() const;
using TrackerDataMap =
    const std::map<std::string, Ptr<TrackerOptionsData>>& (OptionsDataAll::*)() const;
}  // namespace
AttrRows OptionsDataSourceColl::attrRows() const {
  using C = OptionsDataSourceColl;
  static constexpr AttrRow rows[] = {
      row<&C::scope>("scope"),
      mapRow<static_cast<SourceMap>(&C::source)>("source"),
  };
  return rows;
}

void OptionsDataUpdate::addUpdate(TemplateId setId, Ptr<const DataRecord> record) {
  setId_ = setId;
  record_ = std::move(record);
  set(version_, version_ + 1, &Watcher::handleVersion);
}
AttrRows OptionsDataUpdate::attrRows() const {
  using U = OptionsDataUpdate;
  static constexpr AttrRow rows[] = {
      row<&U::scope>("scope"),
      row<&U::setId>("setId"),
      row<&U::version>("version"),
  };
  return rows;
}
Ptr<OptionsDataUpdate> optionsDataUpdateFactory(OptionsDataScope scope) {
  return Ptr<OptionsDataUpdate>::adopt(new OptionsDataUpdate(scope));
}

AttrRows OptionsDataContainer::attrRows() const {
  using C = OptionsDataContainer;
  static constexpr AttrRow rows[] = {
      row<&C::name>("name"),
      mapRow<&C::data>("data"),
      mapRow<&C::update>("update"),
  };
  return rows;
}
Ptr<OptionsDataContainer> optionsDataContainerFactory(const std::string& name) {
  return Ptr<OptionsDataContainer>::adopt(new OptionsDataContainer(name));
}

Ptr<OptionsDataSourceColl> TrackerOptionsData::dataIs(OptionsDataScope scope) {
  return data_ = optionsDataSourceCollFactory(scope);
}
Ptr<OptionsDataUpdate> TrackerOptionsData::updateIs(OptionsDataScope scope) {
  return update_ = optionsDataUpdateFactory(scope);
}
AttrRows TrackerOptionsData::attrRows() const {
  using T = TrackerOptionsData;
  static constexpr AttrRow rows[] = {
      row<&T::name>("name"),
      childRow<&T::data>("data"),
      childRow<&T::update>("update"),
  };
  return rows;
}

Ptr<OptionsDataSourceColl> OptionsDataAll::globalDataIs(OptionsDataScope scope) {
  return globalData_ = optionsDataSourceCollFactory(scope);
}
Ptr<OptionsDataUpdate> OptionsDataAll::globalUpdateIs(OptionsDataScope scope) {
  return globalUpdate_ = optionsDataUpdateFactory(scope);
}
Ptr<TrackerOptionsData> OptionsDataAll::trackerDataIs(const std::string& name) {
  auto& data = trackerData_[name];
  if (!data) data = Ptr<TrackerOptionsData>::adopt(new TrackerOptionsData(name));
  return data;
}
AttrRows OptionsDataAll::attrRows() const {
  using A = OptionsDataAll;
  static constexpr AttrRow rows[] = {
      childRow<&A::globalData>("globalData"),
      childRow<&A::globalUpdate>("globalUpdate"),
      mapRow<static_cast<TrackerDataMap>(&A::trackerData)>("trackerData"),
  };
  return rows;
}
Ptr<OptionsDataAll> optionsDataAllFactory() {
  return Ptr<OptionsDataAll>::adopt(new OptionsDataAll);
}

}  // namespace FlowTracking
