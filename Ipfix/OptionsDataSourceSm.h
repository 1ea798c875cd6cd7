#pragma once
#include <algorithm>
#include <array>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "Ipfix/OptionsDataExporter.h"
#include "platform/Assert.h"
#include "platform/IpfixTypes.h"
#include "platform/Trace.h"

namespace FlowTracking {

/// What the four options tables have in common: each keeps the records of one `OptionsDataSource`
/// in step with an input that it watches, and announces each changed record in an
/// `OptionsDataUpdate`. The constructor of each table builds it from what the input holds then;
/// calling `handleInitialized` again builds it anew. The records stay in the source when the
/// reactor goes: the source is its owner's.
///
/// Announcing a record runs watchers, which may change the same input again or let the table go.
/// Both are safe, because a record is stored before it is announced: while a watcher runs, the
/// table's own records, those of its source and the input agree. The source's version rises last.
class TARN_API OptionsDataSourceSm : public Entity {
 public:
  const Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  const Ptr<OptionsDataUpdate>& dataUpdate() const { return dataUpdate_; }
  /// The template id under which records are announced. It starts as the table's reserved id; the
  /// manager sets it.
  TemplateId setIdVal() const { return setIdVal_; }
  void setIdValIs(TemplateId id) { setIdVal_ = id; }
  const std::string& sourceName() const { return dataSource_->name(); }
  bool initialized() const { return initialized_; }

 protected:
  OptionsDataSourceSm(Ptr<OptionsDataSource> dataSource, Ptr<OptionsDataUpdate> dataUpdate,
                      TemplateId setId)
      : dataSource_(std::move(dataSource)), dataUpdate_(std::move(dataUpdate)), setIdVal_(setId) {}

  /// Starts a full build: the source is empty afterwards.
  void clear_p() {
    initialized_ = true;
    dataSource_->dataRecordDelAll();
  }
  template <class Own, class Key>
  void store_p(Own& own, const Key& key, const Ptr<DataRecord>& record) {
    dataSource_->dataRecordIs(record);
    if constexpr (requires { own[key]; }) {
      own.insert_or_assign(key, record);
    } else {
      own.insert(record);
    }
  }
  /// Tells of a batch of changes, which is over.
  void finish_p() {
    assertCount_p();
    dataSource_->versionInc(1);
  }
  /// Announces a record that is stored. A watcher may change the table further, or let it go.
  void announce_p(const Ptr<DataRecord>& record) {
    dataUpdate_->addUpdate(setIdVal_, record);
    if (!retired()) finish_p();
  }
  /// Brings the record under `key` in step with the input. `make()` returns the record, or null
  /// where the input has none. `own` holds the table's records: a map from the key to the record,
  /// or a set of records that compares the keys in them.
  template <class Own, class Key, class Make>
  void renew_p(Own& own, const Key& key, Make&& make) {
    TARN_ASSERT_AS(initialized(), "initialized()");
    const auto old = own.find(key);
    if (old != own.end()) dataSource_->dataRecordDel(recordIn(*old));
    const Ptr<DataRecord> record = make();
    if (!record) {
      if (old != own.end()) own.erase(old);
      return finish_p();
    }
    if (old == own.end()) {
      store_p(own, key, record);
    } else {
      dataSource_->dataRecordIs(record);
      recordIn(*old) = record;
    }
    announce_p(record);
  }
  /// The rows that every table has, and `own`.
  template <size_t N>
  static constexpr auto rowsWith_p(const AttrRow (&own)[N]) {
    using S = OptionsDataSourceSm;
    std::array<AttrRow, N + 5> rows{
        refRow<&S::dataSource>("dataSource"), refRow<&S::dataUpdate>("dataUpdate"),
        row<&S::sourceName>("sourceName"), row<&S::setIdVal, &S::setIdValIs>("setIdVal"),
        row<&S::initialized>("initialized")};
    std::copy(std::begin(own), std::end(own), rows.begin() + 5);
    return rows;
  }
  /// The row of a table's constant `setId`.
  template <class Sm>
  static constexpr AttrRow setIdRow_p() {
    return {.name = "setId", .get = [](const Entity&) { return std::to_string(Sm::setId()); }};
  }

 private:
  static Ptr<DataRecord>& recordIn(auto& entry) { return entry.second; }
  /// The new record has the old one's key, so its place in the set stays right.
  static Ptr<DataRecord>& recordIn(const Ptr<DataRecord>& entry) {
    return const_cast<Ptr<DataRecord>&>(entry);
  }
  /// Asserts that the table's own records are those of the source, less its reserved ones.
  virtual void assertCount_p() const {}

  Ptr<OptionsDataSource> dataSource_;
  Ptr<OptionsDataUpdate> dataUpdate_;
  TemplateId setIdVal_;
  bool initialized_ = false;
};

/// Streams an unsigned integer of a record, read only when a trace line is written.
struct NetNumber {
  std::string_view octets;  ///< up to 8, in network order
};
inline std::ostream& operator<<(std::ostream& out, NetNumber n) {
  uint64_t value = 0;
  for (const char c : n.octets) value = value << 8 | static_cast<uint8_t>(c);
  return out << value;
}

}  // namespace FlowTracking
