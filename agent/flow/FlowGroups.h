#pragma once
#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "agent/flow/KeyHash.h"

namespace agent::flow {

/// Sums of flows by a key of three words. Bounded: once there are `groupsMax` groups, flows of
/// other keys only count as left out. A group takes 56 octets, and 8 to 16 of the index.
class FlowGroups {
 public:
  static constexpr size_t groupsMax = 1 << 18;
  using Key = std::array<uint64_t, 3>;
  struct Group {
    Key key;
    uint64_t octets = 0;
    uint64_t packets = 0;
    uint64_t flows = 0;
    int64_t firstMs = INT64_MAX;  ///< when the oldest of the flows began
  };

  explicit FlowGroups(uint64_t seed) : seed_(seed), index_(1024) {}

  void add(const Key& key, uint64_t octets, uint64_t packets, int64_t firstMs) {
    size_t slot = slotOf(key);
    if (index_[slot] == 0) {
      if (groups_.size() == groupsMax) {
        ++leftOut_;
        return;
      }
      if (2 * groups_.size() >= index_.size()) {
        grow();
        slot = slotOf(key);
      }
      groups_.push_back({key});
      index_[slot] = static_cast<uint32_t>(groups_.size());
    }
    Group& group = groups_[index_[slot] - 1];
    group.octets += octets;
    group.packets += packets;
    ++group.flows;
    group.firstMs = std::min(group.firstMs, firstMs);
  }
  std::vector<Group>& groups() { return groups_; }
  uint64_t leftOut() const { return leftOut_; }

 private:
  /// The slot that the key is in, or the empty one that it belongs into.
  size_t slotOf(const Key& key) const {
    size_t slot = wordsHash(key.data(), key.size(), seed_) & (index_.size() - 1);
    while (index_[slot] != 0 && groups_[index_[slot] - 1].key != key)
      slot = (slot + 1) & (index_.size() - 1);
    return slot;
  }
  void grow() {
    index_.assign(2 * index_.size(), 0);
    for (size_t i = 0; i < groups_.size(); ++i)
      index_[slotOf(groups_[i].key)] = static_cast<uint32_t>(i + 1);
  }

  const uint64_t seed_;
  std::vector<uint32_t> index_;  // places from 1; 0: empty
  std::vector<Group> groups_;
  uint64_t leftOut_ = 0;
};

}  // namespace agent::flow
