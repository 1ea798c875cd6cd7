#include "agent/flow/FlowPath.h"

#include <algorithm>

/// What others may see of a path's flows under way.
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

std::vector<FlowRow> FlowPath::tracked() const {
  std::vector<FlowRow> rows;
  for (const auto& [vrf, source] : sources_) {
    const auto network = host_.networks->network(vrf);
    if (!source.meter || !network) continue;
    std::map<uint32_t, InterfaceSums::Sum> sums;
    for (const InterfaceSums::Sum& s : source.meter->interfaces()) {
      sums[s.interface].packets += s.packets;
      sums[s.interface].octets += s.octets;
    }
    for (const auto& [kernel, exported] : source.tracked) {
      const auto link = network->links().find(kernel);
      const InterfaceSums::Sum& sum = sums[exported];
      rows.push_back(
          {{"tracker", tracker_},
           {"vrf", vrf.stringValue()},
           {"interface", link == network->links().end() ? std::string() : link->second.name},
           {"index", uint64_t{exported}},
           {"packets", sum.packets},
           {"octets", sum.octets}});
    }
  }
  return rows;
}

}  // namespace agent::flow
