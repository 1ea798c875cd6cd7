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
/// Both are safe: while a watcher runs, the table's own records and those of its source agree, and
/// the newest state of the input is what stays.
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
    ++changes_;
    dataSource_->dataRecordDelAll();
  }
  /// Stores a record in the source and among the table's own, which are a map from the key to the
  /// record or a set of records. `place` is where an older one of the same key was, if anywhere: it
  /// spares the allocator.
  template <class Own, class Key>
  void store_p(Own& own, const Key& key, Ptr<DataRecord> record,
               typename Own::node_type&& place = {}) {
    dataSource_->dataRecordIs(record);
    if (place) {
      recordIn(place) = std::move(record);
      own.insert(std::move(place));
    } else if constexpr (isMap<Own>) {
      own[key] = std::move(record);
    } else {
      own.insert(std::move(record));
    }
  }
  /// Tells of a batch of changes, which is over.
  void finish_p() {
    assertCount_p();
    dataSource_->versionInc(1);
  }
  /// False: a watcher has changed the table further, or has let it go.
  bool announce_p(const Ptr<DataRecord>& record) {
    const uint32_t before = changes_;
    dataUpdate_->addUpdate(setIdVal_, record);
    return before == changes_ && !retired();
  }
  /// Brings the record under `key` in step with the input. `make()` returns the record, or null
  /// where the input has none.
  template <class Own, class Key, class Make>
  void renew_p(Own& own, const Key& key, Make&& make) {
    TARN_ASSERT_AS(initialized(), "initialized()");
    ++changes_;
    typename Own::node_type place;
    if (const auto old = own.find(key); old != own.end()) {
      place = own.extract(old);
      dataSource_->dataRecordDel(recordIn(place));
    }
    if (Ptr<DataRecord> record = make()) {
      // What a watcher changed under the same key meanwhile is newer than this record.
      if (!announce_p(record) && (retired() || own.contains(key) || !make())) return;
      store_p(own, key, std::move(record), std::move(place));
    }
    finish_p();
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
  template <class Own>
  static constexpr bool isMap = requires {
    typename Own::mapped_type;
  };
  template <class Node>
  static Ptr<DataRecord>& recordIn(Node& node) {
    if constexpr (requires { node.mapped(); }) {
      return node.mapped();
    } else {
      return node.value();
    }
  }
  /// Asserts that the table's own records are those of the source, less its reserved ones.
  virtual void assertCount_p() const {}

  Ptr<OptionsDataSource> dataSource_;
  Ptr<OptionsDataUpdate> dataUpdate_;
  TemplateId setIdVal_;
  bool initialized_ = false;
  uint32_t changes_ = 0;  // modulo 2^32
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
