#include "agent/flow/FlowPath.h"

#include <algorithm>

/// What a path shows of its flows under way and its interfaces.
namespace agent::flow {

std::vector<FlowSource> FlowPath::feeds() {
  std::vector<FlowSource> all;
  for (auto& [vrf, source] : sources_) {
    if (!source.meter) continue;
    const auto lens = source.meter->plan()->recordLens();
    auto feed = std::make_shared<FlowFeed>(*std::max_element(lens.begin(), lens.end()));
    source.meter->feedIs(feed);
    all.push_back({vrf.stringValue(), std::move(feed), source.meter->plan()});
  }
  return all;
}

void FlowPath::tracked(size_t& skip, size_t max, std::vector<FlowRow>& rows) const {
  for (const auto& [vrf, source] : sources_) {
    const auto network = host_.networks->network(vrf);
    if (!source.meter || !network || rows.size() == max) continue;
    const size_t passed = std::min(skip, source.tracked.size());
    skip -= passed;
    if (passed == source.tracked.size()) continue;
    std::map<uint32_t, InterfaceSums::Sum> sums;
    for (const InterfaceSums::Sum& s : source.meter->interfaces()) {
      sums[s.interface].packets += s.packets;
      sums[s.interface].octets += s.octets;
    }
    for (auto it = std::next(source.tracked.begin(), static_cast<ptrdiff_t>(passed));
         it != source.tracked.end() && rows.size() < max; ++it) {
      const auto link = network->links().find(it->first);
      const InterfaceSums::Sum& sum = sums[it->second];
      rows.push_back(
          {{"tracker", tracker_},
           {"vrf", vrf.stringValue()},
           {"interface", link == network->links().end() ? std::string() : link->second.name},
           {"index", uint64_t{it->second}},
           {"packets", sum.packets},
           {"octets", sum.octets}});
    }
  }
}

}  // namespace agent::flow
