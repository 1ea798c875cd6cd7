#pragma once
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/flow/FlowFeed.h"
#include "agent/flow/FlowFilter.h"
#include "agent/flow/FlowGroups.h"
#include "agent/flow/RecordPlan.h"
#include "agent/flow/RecordView.h"
#include "agent/records/FlowLook.h"

namespace agent::flow {

/// A meter that tells of its flows, and what its records are.
struct FlowSource {
  std::string vrf;
  FlowFeedPtr feed;
  std::shared_ptr<const RecordPlan> plan;
};

/// One look at a tracker's flows under way, on the agent's thread: it takes them from the meters'
/// feeds piece by piece, and keeps the heaviest, or a bounded number of those that match until
/// somebody asks for them.
class FlowSurvey {
 public:
  using Clock = std::chrono::steady_clock;
  using Names = std::map<uint32_t, std::string>;  ///< of interfaces by the index that is exported

  /// Throws FlowLookError: the records have not what is asked for.
  FlowSurvey(FlowLook look, FlowFilter filter, std::vector<FlowSource> sources, Names names,
             uint64_t seed);
  FlowSurvey(const FlowSurvey&) = delete;
  FlowSurvey& operator=(const FlowSurvey&) = delete;

  /// Takes what the feeds have until `end`. True: it goes on when they have more; false: it is
  /// done, or rows wait to be asked for.
  bool work(Clock::time_point end);
  /// The rows from `next` on that there are now, but for `survey`, which is left empty.
  FlowPart part(size_t next);
  /// Nothing follows the last part.
  bool over() const { return done_ && rows_.empty(); }
  bool isList() const { return look_.by == FlowLook::By::list; }
  /// The rest of the flows is not waited for.
  void hurry();

  Clock::time_point begun = Clock::now();
  Clock::time_point asked = begun;  ///< last

 private:
  static constexpr size_t rowsMax = 4096;  // of a list, that wait to be asked for
  static constexpr size_t partRows = 250;  // JSON of a flow takes some 8 us

  struct Source : FlowSource {
    std::vector<RecordView> views;  // by the layout's place
    std::vector<uint16_t> lens;
    bool done = false;
  };
  struct Sums {
    uint64_t octets, packets;
    int64_t firstMs;
  };
  struct Row {
    uint64_t weight;
    size_t source;
    uint8_t place;
    int64_t nowMs;
    std::vector<char> record;
    FlowGroups::Group group;
  };
  void check() const;
  bool takeFrom(size_t source);
  void flowIs(const Source& source, size_t index, uint8_t place, const char* record);
  void group(const RecordView& view, const char* record, uint64_t vrf, const Sums& sums);
  void keepHeaviest(uint64_t weight, size_t index, uint8_t place, const char* record);
  void finish();
  FlowRow rowOf(const Row& row) const;
  void addGroup(const FlowGroups::Group& group, FlowRow& to) const;
  void addRates(FlowRow& to, uint64_t octets, uint64_t packets, int64_t firstMs,
                int64_t nowMs) const;
  void addName(FlowRow& to, const char* name, uint64_t index) const;

  const FlowLook look_;
  const FlowFilter filter_;
  const Names names_;
  std::vector<Source> sources_;
  std::unique_ptr<FlowGroups> groups_;  // until `done_`
  std::deque<Row>
      rows_;          // what follows; the heaviest are a heap, the lightest first, until `done_`
  size_t given_ = 0;  // rows of former parts
  int64_t nowMs_ = 0;
  uint64_t flows_ = 0;
  bool done_ = false;
  std::string incomplete_;
};

}  // namespace agent::flow
