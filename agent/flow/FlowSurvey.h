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

/// The feed of a meter's flows, and the plan of the records in it.
struct FlowSource {
  std::string vrf;
  FlowFeedPtr feed;
  std::shared_ptr<const RecordPlan> plan;
};

/// One look at a tracker's flows under way, on the agent's thread: it takes them from the meters'
/// feeds piece by piece. It keeps the heaviest rows; of a list, a bounded number of flows that
/// match, until the client asks for them.
class FlowSurvey {
 public:
  using Clock = std::chrono::steady_clock;
  using Names = std::map<uint32_t, std::string>;  ///< of interfaces, by the exported index

  /// Throws FlowLookError when the records lack a field that the look or its filter needs.
  FlowSurvey(FlowLook look, FlowFilter filter, std::vector<FlowSource> sources, Names names,
             uint64_t seed);
  FlowSurvey(const FlowSurvey&) = delete;
  FlowSurvey& operator=(const FlowSurvey&) = delete;

  /// Takes what the feeds have, until `end` at the latest. True: the feeds may get more; false: the
  /// look is done, or its list is full until the client asks for rows.
  bool work(Clock::time_point end);
  /// The rows from `next` on that are ready now; the part's `survey` is left empty. Throws
  /// FlowLookError when `next` is not where the last part ended.
  FlowPart part(size_t next);
  /// Nothing follows the part that was given last.
  bool over() const { return done_ && rows_.empty(); }
  bool isList() const { return look_.by == FlowLook::By::list; }
  /// Ends the look with the flows that were found so far, as incomplete.
  void hurry();

  Clock::time_point begun = Clock::now();
  Clock::time_point asked = begun;  ///< when the client asked for a part last

 private:
  static constexpr size_t rowsMax = 4096;  // of a list, that wait for the client
  static constexpr size_t partRows = 250;  // the JSON of one takes some 8 us

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
    uint64_t weight;  // octets or packets
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
  // Rows that are not given yet. Until `done_` the heaviest are a heap with the lightest in front.
  std::deque<Row> rows_;
  size_t given_ = 0;  // rows in all parts so far
  int64_t nowMs_ = 0;
  uint64_t flows_ = 0;
  bool done_ = false;
  std::string incomplete_;
};

}  // namespace agent::flow
