#pragma once
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Ipfix/DataExporter.h"
#include "platform/Entity.h"
#include "platform/Values.h"

/// The store between the producers of options data and its exporters: whole tables (sources) and
/// single changes (updates).
///
/// A producer, for one change:
///   source->dataRecordDel(old); source->dataRecordIs(record);
///   update->addUpdate(source->dataSetId(), record);   // leaves soon, coalesced
///   source->versionInc(1);                            // the table as a whole changed
namespace FlowTracking {

/// What a table is about: the whole agent, or one tracker.
enum class OptionsDataScope : uint8_t { scopeGlobal = 0, scopeTracker = 1 };
TARN_API std::string toText(OptionsDataScope scope);
inline std::string stringValue(OptionsDataScope scope) { return toText(scope); }
inline std::string valueToStrep(OptionsDataScope scope) { return toText(scope); }
TARN_API bool fromText(std::string_view text, OptionsDataScope& scope);
TARN_API std::ostream& operator<<(std::ostream& out, OptionsDataScope scope);

/// A record's octets in hexadecimal; nothing for a null pointer.
TARN_API std::string toText(const Ptr<const DataRecord>& record);

/// The records of one table, in the order they were added; adding and removing is O(1).
class TARN_API OptionsDataSource final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<OptionsDataSource> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleVersion() {}
  };
  using Record = Ptr<const DataRecord>;

  OptionsDataSource(std::string name, TemplateId dataSetId)
      : name_(std::move(name)), dataSetId_(dataSetId) {}
  ~OptionsDataSource() override { dataRecordDelAll(); }

  const std::string& name() const { return name_; }
  TemplateId dataSetId() const { return dataSetId_; }
  size_t dataRecords() const { return live_; }
  /// The record itself where the source holds it, otherwise null.
  Record dataRecord(const Record& record) const {
    return slotOf_p(*record) == none ? Record() : record;
  }
  /// No watcher hears of single records: after a batch of edits call `versionInc` once. Adding a
  /// record that is there and removing one that is not change nothing. `record` is not null.
  void dataRecordIs(const Record& record);
  void dataRecordDel(const Record& record);
  void dataRecordDelAll();
  /// Visits the records in order. The visitor must not change the source.
  template <class Visit>
  void eachDataRecord(Visit&& visit) const {
    for (const Record& record : slot_)
      if (record) visit(record);
  }

  /// The same for a tight loop: the places in order, null where a record was removed.
  std::span<const Record> places() const { return slot_; }

  uint32_t version() const { return version_; }
  void versionIs(uint32_t v) { set(version_, v, &Watcher::handleVersion); }
  uint32_t versionInc(uint32_t n) {
    const uint32_t v = version_ + n;
    versionIs(v);
    return v;
  }

  AttrRows attrRows() const override;

 private:
  static constexpr uint32_t none = DataRecord::noSlot;
  uint32_t slotOf_p(const DataRecord& record) const;
  void compact_p();
  /// By name, a record's key is its place.
  bool recordsFrom_p(const std::string* key, bool behind, const AttrRow::PartVisitor& visit) const;

  std::string name_;
  TemplateId dataSetId_;
  std::vector<Record> slot_;  // null where one was removed, until those outnumber the rest
  size_t live_ = 0;
  // A record knows its place in the first source it was added to; in further ones, this does.
  std::unordered_map<const DataRecord*, uint32_t> elsewhere_;
  uint32_t version_ = 0;
};
TARN_API Ptr<OptionsDataSource> optionsDataSourceFactory(const std::string& name,
                                                         TemplateId templateId);

/// A member exists already with another value that cannot change in place.
class TARN_API ReinstantiationError : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

/// All sources of one scope. An options data exporter (`OptionsDataExporterSm`) takes the sources
/// that are there when it is made. While one reads the collection, adding or removing a source is a
/// fault of the host and ends in the assertion "data source changed after init!": a host adds its
/// own sources before it configures the first exporter.
class TARN_API OptionsDataSourceColl final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<OptionsDataSourceColl> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleSource(const std::string& /*name*/) {}
  };
  explicit OptionsDataSourceColl(OptionsDataScope scope) : scope_(scope) {}
  OptionsDataScope scope() const { return scope_; }
  const std::map<std::string, Ptr<OptionsDataSource>>& source() const { return source_; }
  Ptr<OptionsDataSource> source(const std::string& name) const { return find(source_, name); }
  /// The source of that name, made when there is none. Throws ReinstantiationError when it exports
  /// under another template id: delete it first.
  Ptr<OptionsDataSource> sourceIs(const std::string& name, TemplateId templateId);
  void sourceDel(const std::string& name) { del(source_, name, &Watcher::handleSource); }
  void sourceDelAll() { delAll(source_, &Watcher::handleSource); }

  AttrRows attrRows() const override;

 private:
  OptionsDataScope scope_;
  std::map<std::string, Ptr<OptionsDataSource>> source_;
};
TARN_API Ptr<OptionsDataSourceColl> optionsDataSourceCollFactory(OptionsDataScope scope);

/// Announces one changed record at a time. Holds the last one only: a watcher takes it inside the
/// notification. Watchers hear of `version`, and find the id and the record that belong to it.
class TARN_API OptionsDataUpdate final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<OptionsDataUpdate> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleVersion() {}
  };
  explicit OptionsDataUpdate(OptionsDataScope scope) : scope_(scope) {}
  OptionsDataScope scope() const { return scope_; }
  TemplateId setId() const { return setId_; }
  void setIdIs(TemplateId id) { setId_ = id; }
  const Ptr<const DataRecord>& record() const { return record_; }
  void recordIs(Ptr<const DataRecord> record) { record_ = std::move(record); }
  uint32_t version() const { return version_; }
  void versionIs(uint32_t v) { set(version_, v, &Watcher::handleVersion); }
  uint32_t versionInc(uint32_t n) {
    const uint32_t v = version_ + n;
    versionIs(v);
    return v;
  }
  /// Raises the version by one, for the same record again, too. Called by a watcher of this very
  /// slot, it returns at once, and the record follows when every watcher has seen the one before.
  /// The caller holds a reference to the slot.
  void addUpdate(TemplateId setId, Ptr<const DataRecord> record);

  AttrRows attrRows() const override;

 private:
  OptionsDataScope scope_;
  TemplateId setId_ = 0;
  Ptr<const DataRecord> record_;
  uint32_t version_ = 0;
  bool announcing_ = false;
  std::vector<std::pair<TemplateId, Ptr<const DataRecord>>> following_;
};
TARN_API Ptr<OptionsDataUpdate> optionsDataUpdateFactory(OptionsDataScope scope);

struct BuiltTables;

/// What the exporters of one tracker read: the collections and update slots of each scope, owned
/// elsewhere. An exporter takes those that are there when it is made.
class TARN_API OptionsDataContainer final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<OptionsDataContainer> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleData(OptionsDataScope /*scope*/) {}
    virtual void handleUpdate(OptionsDataScope /*scope*/) {}
  };
  explicit OptionsDataContainer(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  const std::map<OptionsDataScope, Ptr<OptionsDataSourceColl>>& data() const { return data_; }
  Ptr<OptionsDataSourceColl> data(OptionsDataScope scope) const { return find(data_, scope); }
  void dataIs(const Ptr<OptionsDataSourceColl>& coll) {
    put(data_, coll->scope(), coll, &Watcher::handleData);
  }
  void dataDel(OptionsDataScope scope) { del(data_, scope, &Watcher::handleData); }
  void dataDelAll() { delAll(data_, &Watcher::handleData); }
  const std::map<OptionsDataScope, Ptr<OptionsDataUpdate>>& update() const { return update_; }
  Ptr<OptionsDataUpdate> update(OptionsDataScope scope) const { return find(update_, scope); }
  void updateIs(const Ptr<OptionsDataUpdate>& slot) {
    put(update_, slot->scope(), slot, &Watcher::handleUpdate);
  }
  void updateDel(OptionsDataScope scope) { del(update_, scope, &Watcher::handleUpdate); }
  void updateDelAll() { delAll(update_, &Watcher::handleUpdate); }

  /// The tables as messages of up to so many octets, while an exporter uses them: those that agree
  /// on the size share them.
  std::map<uint16_t, std::weak_ptr<const BuiltTables>>& builtTables_p() const { return built_; }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  std::map<OptionsDataScope, Ptr<OptionsDataSourceColl>> data_;
  std::map<OptionsDataScope, Ptr<OptionsDataUpdate>> update_;
  mutable std::map<uint16_t, std::weak_ptr<const BuiltTables>> built_;
};
TARN_API Ptr<OptionsDataContainer> optionsDataContainerFactory(const std::string& name);

class OptionsDataAll;

/// One tracker's own tables.
class TARN_API TrackerOptionsData final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<TrackerOptionsData> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleData() {}
    virtual void handleUpdate() {}
  };
  explicit TrackerOptionsData(std::string name, const OptionsDataAll* parent = nullptr)
      : name_(std::move(name)), parent_(parent) {}
  const std::string& name() const { return name_; }
  /// The root that this is a child of; null once the root has removed it or is gone itself.
  const OptionsDataAll* parent() const { return parent_; }
  /// The owned collection, and below the owned slot. `dataIs` and `updateIs` make it where there is
  /// none, and throw ReinstantiationError where there is one of another scope.
  const Ptr<OptionsDataSourceColl>& data() const { return data_; }
  Ptr<OptionsDataSourceColl> dataIs(OptionsDataScope scope);
  void dataDel() { set(data_, nullptr, &Watcher::handleData); }
  const Ptr<OptionsDataUpdate>& update() const { return update_; }
  Ptr<OptionsDataUpdate> updateIs(OptionsDataScope scope);
  void updateDel() { set(update_, nullptr, &Watcher::handleUpdate); }

  AttrRows attrRows() const override;

 private:
  void handleRetired() override { parent_ = nullptr; }

  std::string name_;
  const OptionsDataAll* parent_;
  Ptr<OptionsDataSourceColl> data_;
  Ptr<OptionsDataUpdate> update_;
};
/// One without parent; `OptionsDataAll::trackerDataIs` makes those that have one.
TARN_API Ptr<TrackerOptionsData> trackerOptionsDataFactory(const std::string& name);

/// The root, one per agent.
class TARN_API OptionsDataAll final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<OptionsDataAll> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleGlobalData() {}
    virtual void handleGlobalUpdate() {}
    virtual void handleTrackerData(const std::string& /*name*/) {}
  };
  static constexpr std::string_view name() { return "optionsDataAll"; }
  /// As `TrackerOptionsData::data` and `update`.
  const Ptr<OptionsDataSourceColl>& globalData() const { return globalData_; }
  Ptr<OptionsDataSourceColl> globalDataIs(OptionsDataScope scope);
  void globalDataDel() { set(globalData_, nullptr, &Watcher::handleGlobalData); }
  const Ptr<OptionsDataUpdate>& globalUpdate() const { return globalUpdate_; }
  Ptr<OptionsDataUpdate> globalUpdateIs(OptionsDataScope scope);
  void globalUpdateDel() { set(globalUpdate_, nullptr, &Watcher::handleGlobalUpdate); }
  const std::map<std::string, Ptr<TrackerOptionsData>>& trackerData() const { return trackerData_; }
  Ptr<TrackerOptionsData> trackerData(const std::string& name) const {
    return find(trackerData_, name);
  }
  /// The tracker's part, made as a child of this root when there is none.
  Ptr<TrackerOptionsData> trackerDataIs(const std::string& name);
  void trackerDataDel(const std::string& name);
  void trackerDataDelAll();

  AttrRows attrRows() const override;

 private:
  void handleRetired() override { dropAll(trackerData_); }

  Ptr<OptionsDataSourceColl> globalData_;
  Ptr<OptionsDataUpdate> globalUpdate_;
  std::map<std::string, Ptr<TrackerOptionsData>> trackerData_;
};
TARN_API Ptr<OptionsDataAll> optionsDataAllFactory();

}  // namespace FlowTracking
