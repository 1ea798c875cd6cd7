#include "agent/flow/InterfaceWarnings.h"

#include <algorithm>
#include <map>
#include <vector>

#include "agent/host/Printable.h"
#include "agent/settings/PacketExpression.h"

namespace agent::flow {
namespace {
/// For each link, the links of its network that see its packets as well: its bridge, its VLANs, ...
using Above = std::multimap<uint32_t, uint32_t>;

Above aboveOf(const VrfNetwork& network) {
  Above above;
  for (const auto& [index, link] : network.links()) {
    if (link.relations.master != 0) above.emplace(index, link.relations.master);
    if (link.relations.lower != 0) above.emplace(link.relations.lower, index);
  }
  return above;
}

/// The links above `from` that the tracker takes, of each way up only the nearest.
std::set<uint32_t> takenAbove(uint32_t from, const Above& above, const std::set<uint32_t>& taken) {
  std::set<uint32_t> found;
  std::set<uint32_t> visited{from};
  std::vector<uint32_t> next{from};
  while (!next.empty()) {
    const auto [begin, end] = above.equal_range(next.back());
    next.pop_back();
    for (auto it = begin; it != end; ++it) {
      if (!visited.insert(it->second).second) continue;
      if (taken.contains(it->second)) {
        found.insert(it->second);
      } else {
        next.push_back(it->second);
      }
    }
  }
  return found;
}
}  // namespace

std::string exportedName(const VrfName& vrf, const std::string& name) {
  return vrf.stringValue() == defaultVrf ? name : vrf.stringValue() + '/' + name;
}

void InterfaceWarnings::say(const std::string& what) const {
  log_.warning("tracker " + printable(tracker_) + ": " + what, {.tracker = tracker_});
}

void InterfaceWarnings::sayNew(std::set<Pair>& said, std::set<Pair> now, const char* between,
                               const std::string& what) const {
  size_t more = 0;
  size_t n = 0;
  for (const Pair& pair : now) {
    if (said.contains(pair)) continue;
    if (++n > warningsMax) {
      ++more;
    } else {
      say(printable(pair.first) + between + printable(pair.second) + what);
    }
  }
  if (more > 0) say("the same is true of " + std::to_string(more) + " more");
  said = std::move(now);
}

void InterfaceWarnings::review(const TrackerSettings& settings, const NetworkList& networks) {
  std::set<Pair> doubles, unfiltered;
  std::vector<std::string> names;
  if (filter_ != settings.filter) {
    filter_ = settings.filter;
    problem_ = filter_.empty() ? "" : compilePacketExpression(filter_, LinkLayer::raw).problem;
    unfiltered_.clear();
  }
  for (const auto& [vrf, network] : networks.network()) {
    std::set<uint32_t> taken;
    const auto nameOf = [&, v = vrf, n = network](uint32_t index) {
      return exportedName(v, n->links().at(index).name);
    };
    for (const auto& [index, link] : network->links()) {
      names.push_back(nameOf(index));
      if (!takes(settings.interfaces, names.back())) continue;
      taken.insert(index);
      if (!problem_.empty() && !link.hasEthernetHeader()) unfiltered.emplace(names.back(), "");
    }
    const Above above = aboveOf(*network);
    for (const uint32_t index : taken)
      for (const uint32_t upper : takenAbove(index, above, taken))
        doubles.emplace(nameOf(index), nameOf(upper));
  }
  if (patterns_ != settings.interfaces) {
    patterns_ = settings.interfaces;
    const InterfacePatterns idle = idlePatterns(patterns_, names);
    for (size_t i = 0; i < std::min(idle.size(), warningsMax); ++i)
      say("no interface is there that \"" + printable(idle[i]) +
          "\" takes, a pattern of its key 'interfaces'; one that comes later is tracked");
    if (idle.size() > warningsMax)
      say("the same is true of " + std::to_string(idle.size() - warningsMax) + " more");
  }
  sayNew(doubles_, std::move(doubles), " and ",
         ": a packet that passes both is counted at each; unless that is meant, exclude one with a "
         "pattern like \"!eth0\"");
  sayNew(unfiltered_, std::move(unfiltered), "",
         " has no Ethernet header, and no packet of it is counted, since the filter needs one: " +
             problem_);
}

}  // namespace agent::flow
