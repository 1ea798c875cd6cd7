#include "agent/flow/FlowSurvey.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "agent/host/Printable.h"

namespace agent::flow {
namespace {
using By = FlowLook::By;
/// Heaps with this order have the lightest row in front.
constexpr auto heavier = [](const auto& a, const auto& b) { return a.weight > b.weight; };
}  // namespace

FlowSurvey::FlowSurvey(FlowLook look, FlowFilter filter, std::vector<FlowSource> sources,
                       Names names, uint64_t seed)
    : look_(std::move(look)),
      filter_(std::move(filter)),
      names_(std::move(names)),
      groups_(std::make_unique<FlowGroups>(seed)) {
  for (FlowSource& s : sources) {
    Source source{{std::move(s)}, {}, {}, false};
    for (const RecordLayout& layout : source.plan->layouts()) {
      source.views.emplace_back(layout);
      source.lens.push_back(static_cast<uint16_t>(layout.len()));
    }
    sources_.push_back(std::move(source));
  }
  check();
}

void FlowSurvey::check() const {
  std::set<std::string> vrfs;
  for (const Source& s : sources_) vrfs.insert(s.vrf);
  if (const std::string vrf = filter_.vrfNotIn(vrfs); !vrf.empty())
    throw FlowLookError("filter: tracker " + inQuotes(look_.tracker) + " counts nothing in VRF " +
                            inQuotes(vrf) + "; it counts in " +
                            (vrfs.empty() ? "none" : joined(vrfs, inQuotes)),
                        "notFound");
  for (const Source& s : sources_) {
    const auto any = [&](auto has) { return std::any_of(s.views.begin(), s.views.end(), has); };
    std::string missing = filter_.missing(s.views);
    if (look_.by == By::hosts && !any([](const auto& v) { return v.source || v.destination; }))
      missing = "addresses";
    if (look_.by == By::ports &&
        !any([](const auto& v) { return v.sourcePort || v.destinationPort; }))
      missing = "ports";
    if (look_.by == By::interfaces && !any([](const auto& v) { return v.ingress || v.egress; }))
      missing = "interfaces";
    if (look_.by != By::list && look_.order == FlowLook::Order::octets &&
        !any([](const auto& v) { return bool(v.octets); }))
      missing = "octets";
    if (look_.by != By::list && look_.order == FlowLook::Order::packets &&
        !any([](const auto& v) { return bool(v.packets); }))
      missing = "packets";
    if (!missing.empty())
      throw FlowLookError("the flow records of tracker " + inQuotes(look_.tracker) + " have no " +
                          missing + ": ask for something else, or give it another 'record'");
  }
}

bool FlowSurvey::work(Clock::time_point end) {
  bool more = !done_;
  while (more && Clock::now() < end) {
    more = false;
    for (size_t i = 0; i < sources_.size(); ++i) more = takeFrom(i) || more;
  }
  if (!done_ && std::all_of(sources_.begin(), sources_.end(), [](const auto& s) { return s.done; }))
    finish();
  return !done_ && rows_.size() < rowsMax;
}

/// Takes one block. False: there is none now.
bool FlowSurvey::takeFrom(size_t index) {
  Source& source = sources_[index];
  if (source.done || (look_.by == By::list && rows_.size() >= rowsMax)) return false;
  const bool ended = source.feed->ended();
  const FlowFeedBlock* const block = source.feed->take();
  if (!block) {
    if (!ended) return false;
    source.done = true;
    if (!source.feed->whole())
      incomplete_ = "flows of VRF " + printable(source.vrf) +
                    " are missing: tracking there ended meanwhile, by a reload, a failure, or "
                    "because its interfaces are gone";
    return false;
  }
  nowMs_ = std::max(nowMs_, block->nowMs);
  const size_t len = source.lens[block->place];
  for (size_t at = 0; at < block->used; at += len)
    flowIs(source, index, block->place, &block->octets[at]);
  source.feed->release();
  return true;
}

void FlowSurvey::flowIs(const Source& source, size_t index, uint8_t place, const char* record) {
  ++flows_;
  const RecordView& view = source.views[place];
  if (!filter_.matches(view, record, source.vrf)) return;
  const Sums sums{view.allOctets(record), view.allPackets(record), view.startMs(record)};
  if (look_.by == By::list) {
    rows_.push_back({0, index, place, nowMs_, {record, record + source.lens[place]}, {}});
  } else if (look_.by == By::flows) {
    keepHeaviest(look_.order == FlowLook::Order::octets ? sums.octets : sums.packets, index, place,
                 record);
  } else {
    group(view, record, index, sums);
  }
}

/// Adds the flow to the groups of its two ends.
void FlowSurvey::group(const RecordView& view, const char* record, uint64_t vrf, const Sums& sums) {
  using Place = RecordView::Place;
  FlowGroups::Key first{};
  bool any = false;
  const auto add = [&](Place place) {
    if (!place) return;
    FlowGroups::Key key{};
    if (look_.by == By::hosts) {
      std::memcpy(key.data(), record + place.at, place.len);
      key[2] = place.len;
    } else {
      key[0] = RecordView::number(record, place);
      if (look_.by == By::ports)
        key[1] = view.protocol ? RecordView::number(record, view.protocol) : 256;
      if (look_.by == By::interfaces && key[0] == 0) return;  // the interface is not known
    }
    key[2] |= vrf << 8;
    if (any && key == first) return;  // both ends are the same
    first = key;
    any = true;
    groups_->add(key, sums.octets, sums.packets, sums.firstMs);
  };
  if (look_.by == By::hosts) {
    add(view.source);
    add(view.destination);
  } else if (look_.by == By::interfaces) {
    add(view.ingress);
    add(view.egress);
  } else if (view.hasPorts(record)) {
    add(view.sourcePort);
    add(view.destinationPort);
  }
}

void FlowSurvey::keepHeaviest(uint64_t weight, size_t index, uint8_t place, const char* record) {
  if (rows_.size() == look_.count) {
    if (weight <= rows_.front().weight) return;
    std::pop_heap(rows_.begin(), rows_.end(), heavier);
    rows_.pop_back();
  }
  rows_.push_back(
      {weight, index, place, nowMs_, {record, record + sources_[index].lens[place]}, {}});
  std::push_heap(rows_.begin(), rows_.end(), heavier);
}

void FlowSurvey::finish() {
  done_ = true;
  if (look_.by == By::list) return;
  for (const FlowGroups::Group& g : groups_->groups()) {
    const uint64_t weight = look_.order == FlowLook::Order::octets ? g.octets : g.packets;
    if (rows_.size() == look_.count) {
      if (weight <= rows_.front().weight) continue;
      std::pop_heap(rows_.begin(), rows_.end(), heavier);
      rows_.pop_back();
    }
    rows_.push_back({weight, g.key[2] >> 8, 0, nowMs_, {}, g});
    std::push_heap(rows_.begin(), rows_.end(), heavier);
  }
  std::sort(rows_.begin(), rows_.end(), heavier);
  if (groups_->leftOut() > 0)
    incomplete_ = "there are more than " + std::to_string(FlowGroups::groupsMax) + ' ' +
                  (look_.by == By::hosts ? "hosts" : "ports") + ": " +
                  std::to_string(groups_->leftOut()) +
                  " ends of flows belong to others and are left out";
  groups_.reset();
}

void FlowSurvey::hurry() {
  if (done_) return;
  incomplete_ = "the time for a look was over before all flows were looked at";
  for (Source& s : sources_) {
    s.feed.reset();
    s.done = true;
  }
  finish();
}

FlowPart FlowSurvey::part(size_t next) {
  if (next != given_)
    throw FlowLookError("this is not the next part: ask with what 'next' of the last part was");
  FlowPart part;
  part.tracker = look_.tracker;
  if (done_ || look_.by == By::list) {
    for (; !rows_.empty() && part.rows.size() < partRows; rows_.pop_front())
      part.rows.push_back(rowOf(rows_.front()));
  }
  part.next = given_ += part.rows.size();
  part.flows = flows_;
  part.incomplete = incomplete_;
  return part;
}

FlowRow FlowSurvey::rowOf(const Row& row) const {
  const Source& source = sources_[row.source];
  FlowRow out = {{"vrf", source.vrf}};
  if (row.record.empty()) {
    addGroup(row.group, out);
    return out;
  }
  const RecordView& view = source.views[row.place];
  const char* const record = row.record.data();
  view.addFields(record, out);
  if (view.ingress) addName(out, "ingressName", RecordView::number(record, view.ingress));
  if (view.egress) addName(out, "egressName", RecordView::number(record, view.egress));
  const auto seconds = [](int64_t ms) { return static_cast<double>(ms) / 1000; };
  if (view.start) out.emplace_back("start", seconds(view.startMs(record)));
  if (view.last) out.emplace_back("last", seconds(view.lastMs(record)));
  if (view.packets) out.emplace_back("packets", view.allPackets(record));
  if (view.octets) out.emplace_back("octets", view.allOctets(record));
  const auto back = [&](const char* name, RecordView::Place place) {
    if (place) out.emplace_back(name, RecordView::number(record, place));
  };
  back("reversePackets", view.reversePackets);
  back("reverseOctets", view.reverseOctets);
  addRates(out, view.allOctets(record), view.allPackets(record), view.startMs(record), row.nowMs);
  return out;
}

void FlowSurvey::addGroup(const FlowGroups::Group& g, FlowRow& to) const {
  if (look_.by == By::hosts) {
    to.emplace_back("host",
                    addressText(reinterpret_cast<const char*>(g.key.data()), g.key[2] & 0xff));
  } else if (look_.by == By::ports) {
    to.emplace_back("protocol", g.key[1] == 256 ? FlowValue() : g.key[1]);
    to.emplace_back("port", g.key[0]);
  } else {
    addName(to, "interface", g.key[0]);
    to.emplace_back("index", g.key[0]);
  }
  to.emplace_back("flows", g.flows);
  to.emplace_back("packets", g.packets);
  to.emplace_back("octets", g.octets);
  addRates(to, g.octets, g.packets, g.firstMs, nowMs_);
}

/// Adds the mean rates since `firstMs`, when the record of the flow, or the oldest of several,
/// began: without values for less than a second, where a mean says nothing.
void FlowSurvey::addRates(FlowRow& to, uint64_t octets, uint64_t packets, int64_t firstMs,
                          int64_t nowMs) const {
  FlowValue seconds, bits, rate;
  if (firstMs != INT64_MAX && nowMs - firstMs >= 1000) {
    const double s = static_cast<double>(nowMs - firstMs) / 1000;
    seconds = s;
    bits = static_cast<double>(octets) * 8 / s;
    rate = static_cast<double>(packets) / s;
  }
  to.emplace_back("seconds", seconds);
  to.emplace_back("bitsPerSecond", bits);
  to.emplace_back("packetsPerSecond", rate);
}

void FlowSurvey::addName(FlowRow& to, const char* name, uint64_t index) const {
  const auto it = names_.find(static_cast<uint32_t>(index));
  to.emplace_back(name, it == names_.end() ? FlowValue() : FlowValue(it->second));
}

}  // namespace agent::flow
