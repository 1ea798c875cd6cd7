#include "agent/device/LocalCollectorTemplates.h"

#include <algorithm>
#include <bit>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/IpfixTypes.h"

namespace agent {
namespace {
using FlowTracking::TemplateId;
using Ipfix::IpfixConst;

constexpr size_t templateHeaderLen = 4;  // RFC 7011, 3.4.1
constexpr int lifetimes = 3;             // RFC 7011, 8.4: a template may be lost twice
/// One search for what to forget costs a look at everything, so it makes room for so many: one
/// part in 16 of the limit.
constexpr size_t batchPart = 16;
/// Senders with less than one part in 64 of the limit are alike: a device with two templates has no
/// more than its due where thousands of forged senders have one each.
constexpr size_t sharePart = 64;
/// Searches for layouts that give way, per datagram. A datagram may hold 5,000 templates.
constexpr int displacementsMax = 4;

uint32_t templateLen(const PassedLayout& layout) {
  uint32_t len = templateHeaderLen;
  for (const PassedField& f : layout) len += f.enterprise ? 8 : 4;
  return len;
}

/// The flow addresses of both families: no options table can tell the keys of such a template.
bool mixesFamilies(const PassedLayout& layout) {
  bool v4 = false;
  bool v6 = false;
  for (const PassedField& f : layout) {
    if (f.enterprise) continue;
    v4 = v4 || f.element == 8 || f.element == 12;
    v6 = v6 || f.element == 27 || f.element == 28;
  }
  return v4 && v6;
}
}  // namespace

LocalCollectorTemplates::LocalCollectorTemplates(Ptr<const Ipfix::ElementIdColl> registry,
                                                 Publish publish, Withdraw withdraw,
                                                 const Limits& limits,
                                                 LocalCollectorCounters& counters)
    : registry_(std::move(registry)),
      publish_(std::move(publish)),
      withdraw_(std::move(withdraw)),
      limits_(limits),
      counters_(counters) {}

// --- Templates ---

void LocalCollectorTemplates::datagramBegins() {
  ++datagrams_;
  displacements_ = 0;
  madeRoom_ = false;
}

LocalCollectorTemplates::Stream* LocalCollectorTemplates::stream(const StreamKey& key) {
  const auto it = streams_.find(key);
  return it == streams_.end() ? nullptr : &it->second;
}

bool LocalCollectorTemplates::learn(const StreamKey& key, TemplateId id, std::string_view record,
                                    size_t headerLen, bool options) {
  auto stream = streams_.find(key);
  bool known = stream != streams_.end() && stream->second.templates.contains(id);
  if (known) {
    Template& t = stream->second.templates.at(id);
    if (t.options == options && t.octets == record) {
      t.learnt = now_;
      t.heard = datagrams_;
      if (t.layout) t.layout->second.heard = now_;
      if (t.waits) retry(t, true);
      return true;
    }
  }

  Template t;
  t.options = options;
  t.learnt = now_;
  t.heard = datagrams_;
  if (u16At(record, 2) > limits_.fields) {
    ++counters_.templatesOverLimit;
    if (known) forget(stream, id);
    return true;
  }
  const IpGenAddr& address = std::get<IpGenAddr>(key);
  if (!known && !roomFor(address)) {
    ++counters_.templatesOverLimit;
    return true;
  }
  t.records = RecordReduction(record.substr(headerLen), *registry_);
  if (t.records.minLen == 0) return false;
  if (exporterAddress_ && !options) t.records.exporterAddressIs(address);
  if (!options) {
    counters_.fieldsUnknown += t.records.unknown;
    counters_.fieldsOfBadLength += t.records.badLength;
  }
  t.octets = record;

  if (!known) {
    t.sender = &*senders_.try_emplace(address).first;
    ++t.sender->second.templates;
    ++templateCount_;
  }
  Template& slot = streams_[key].templates[id];
  if (known) {
    t.sender = slot.sender;
    t.layout = slot.layout;  // kept until the new one is published: records go on under it
    t.tried = slot.tried;
  }
  slot = std::move(t);
  if (options) {
    ++counters_.optionsTemplates;
    release(slot);
    return true;
  }
  ++counters_.templatesLearnt;
  publish(slot);
  return true;
}

/// Makes room for one more template where there is none. False: this datagram made room before, for
/// a 16th of the limit, and brings more than that: a flood shall not cost a search for each.
bool LocalCollectorTemplates::roomFor(const IpGenAddr& address) {
  const auto sender = senders_.find(address);
  const bool own =
      sender != senders_.end() && sender->second.templates >= limits_.templatesPerSender;
  if (!own && templateCount_ < limits_.templates) return true;
  if (std::exchange(madeRoom_, true)) return false;
  makeRoom(own ? &address : nullptr, own ? limits_.templatesPerSender : limits_.templates);
  return true;
}

/// Forgets a few of all templates, or of those of `only`, which have reached `limit`.
void LocalCollectorTemplates::makeRoom(const IpGenAddr* only, size_t limit) {
  struct Candidate {
    int greed;
    uint64_t heard;
    Streams::iterator stream;
    TemplateId id;
  };
  std::vector<Candidate> tried;
  std::vector<Candidate> untried;
  auto stream = only ? streams_.lower_bound(StreamKey(*only, 0, 0)) : streams_.begin();
  for (; stream != streams_.end(); ++stream) {
    if (only && std::get<IpGenAddr>(stream->first) != *only) break;
    for (const auto& [id, t] : stream->second.templates) {
      const auto greed = static_cast<int>(
          std::bit_width(t.sender->second.templates * sharePart / limits_.templates));
      (t.tried ? tried : untried).push_back({only ? 0 : greed, t.heard, stream, id});
    }
  }
  auto& from = untried.size() > limit / 4 || tried.empty() ? untried : tried;
  const size_t n = std::min(std::max<size_t>(limit / batchPart, 1), from.size());
  std::partial_sort(from.begin(), from.begin() + static_cast<ptrdiff_t>(n), from.end(),
                    [](const Candidate& a, const Candidate& b) {
                      return a.greed != b.greed ? a.greed > b.greed : a.heard < b.heard;
                    });
  counters_.templatesDisplaced += n;
  for (size_t i = 0; i < n; ++i) forget(from[i].stream, from[i].id);
}

/// Returns the stream, or the next one when it had no other template and is gone.
LocalCollectorTemplates::Streams::iterator LocalCollectorTemplates::forget(Streams::iterator stream,
                                                                           TemplateId id) {
  auto& templates = stream->second.templates;
  const auto it = templates.find(id);
  Senders::value_type* const sender = it->second.sender;
  release(it->second);
  templates.erase(it);
  --templateCount_;
  --sender->second.templates;
  forgetIdle(sender);
  return templates.empty() ? streams_.erase(stream) : stream;
}

void LocalCollectorTemplates::forgetIdle(Senders::value_type* sender) {
  if (sender->second.templates == 0 && sender->second.layouts == 0) senders_.erase(sender->first);
}

void LocalCollectorTemplates::heardRecords(Template& t) {
  t.heard = datagrams_;
  if (t.layout) t.layout->second.heard = now_;
  if (!std::exchange(t.tried, true)) {
    if (t.layout) ++t.layout->second.tried;
    t.waitedAt = 0;
  }
  // Records of a device that others kept out do not wait for its template to be repeated.
  if (t.waits && t.waitedAt != changes_) retry(t, true);
}

void LocalCollectorTemplates::advance(Seconds d) {
  now_ += d;
  ++changes_;
  for (auto stream = streams_.begin(); stream != streams_.end();) {
    std::vector<TemplateId> expired;
    for (auto& [id, t] : stream->second.templates) {
      if (now_ - t.learnt > lifetimes * limits_.templateLifetime) {
        expired.push_back(id);
      } else if (t.waits) {
        retry(t, false);
      }
    }
    counters_.templatesExpired += expired.size();
    const bool all = expired.size() == stream->second.templates.size();
    auto next = stream;
    for (const TemplateId id : expired) next = forget(stream, id);
    stream = all ? next : std::next(stream);
  }
  std::erase_if(layouts_, [this](const auto& layout) {
    if (layout.second.published || now_ - layout.second.withdrawn < hold_) return false;
    ids_.erase(layout.second.id);
    --layout.second.cause->second.layouts;
    forgetIdle(layout.second.cause);
    return true;
  });
}

// --- Layouts ---

/// Gives the template its layout, if that can be published. The one it had until now goes.
void LocalCollectorTemplates::publish(Template& t) {
  uint64_t LocalCollectorCounters::*refusal = nullptr;
  t.waits = false;
  if (t.records.passed.empty()) {
    refusal = &LocalCollectorCounters::templatesWithoutField;
  } else if (mixesFamilies(t.records.passed)) {
    refusal = &LocalCollectorCounters::templatesMixed;
  } else {
    if (t.layout && t.layout->first == t.records.passed) return;
    t.waits = true;
    refusal = acquire(t, false);
    if (refusal) {  // the room of the old one may do
      release(t);
      refusal = acquire(t, true);
    }
  }
  if (!refusal) return;
  release(t);
  ++(counters_.*refusal);
}

/// Tries once more what was refused and counted before.
void LocalCollectorTemplates::retry(Template& t, bool displace) {
  t.waitedAt = changes_;
  acquire(t, displace);
}

/// Publishes the template's layout, or uses the one that is published, in place of the one it has.
/// `displace`: others may give way. Returns null, or the counter of what is in the way.
uint64_t LocalCollectorCounters::*LocalCollectorTemplates::acquire(Template& t, bool displace) {
  if (t.records.keptLen > room_) return &LocalCollectorCounters::templatesTooLarge;
  auto it = layouts_.find(t.records.passed);
  if (it != layouts_.end() && it->second.published) {
    use(t, &*it);
    return nullptr;
  }
  TemplateId id = 0;
  if (it == layouts_.end()) {
    const size_t most = t.tried ? limits_.layouts : limits_.layouts - limits_.layouts / 4;
    if (layouts_.size() < most &&
        t.sender->second.layouts < std::max<size_t>(limits_.layouts / 4, 1))
      id = freeId();
    if (id == 0) return &LocalCollectorCounters::templatesOverLimit;
  }
  const uint32_t len = templateLen(t.records.passed);
  if (publishedLen_ + len > room_ && (!displace || !displaceFor(t, len)))
    return &LocalCollectorCounters::templatesWithoutRoom;
  if (it == layouts_.end()) {
    it = layouts_.try_emplace(t.records.passed).first;
    it->second.id = id;
    it->second.cause = t.sender;
    ++t.sender->second.layouts;
    ids_.emplace(id, &*it);
  }
  Layout& layout = it->second;
  layout.published = layout.fresh = true;
  fresh_.push_back(&*it);
  publishedLen_ += len;
  publish_(layout.id, it->first);
  use(t, &*it);
  return nullptr;
}

/// Octets of the templates of the layouts that only one sender uses, by sender.
std::map<const LocalCollectorTemplates::Senders::value_type*, uint32_t>
LocalCollectorTemplates::ownOctets() const {
  std::map<const Senders::value_type*, uint32_t> octets;
  for (const auto& [id, layout] : ids_)
    if (layout->second.published && layout->second.uses.size() == 1)
      octets[layout->second.uses.begin()->first] += templateLen(layout->first);
  return octets;
}

/// Makes room for a template of `len` octets, if enough layouts have to give way to `t`:
/// - those of which nothing was heard for long;
/// - those that were not tried, when `t` was;
/// - those of a sender that takes more room than that of `t` would then, and it cannot take it
///   back, since then it would be the one that takes more.
bool LocalCollectorTemplates::displaceFor(const Template& t, uint32_t len) {
  if (displacements_++ >= displacementsMax || len > room_) return false;
  const auto octets = ownOctets();
  const auto octetsOf = [&](const Senders::value_type* sender) {
    const auto it = octets.find(sender);
    return it == octets.end() ? 0 : it->second;
  };
  const uint32_t wanted = octetsOf(t.sender) + len;
  struct Victim {
    bool tried;
    uint32_t octets;
    Seconds heard;
    Layouts::value_type* layout;
  };
  std::vector<Victim> victims;
  for (const auto& [id, entry] : ids_) {
    const Layout& l = entry->second;
    if (!l.published || l.fresh) continue;  // a fresh one's room is not free before `settle`
    const bool tried = l.tried > 0;
    const uint32_t theirs = l.uses.size() == 1 ? octetsOf(l.uses.begin()->first) : 0;
    if (now_ - l.heard >= (tried ? limits_.triedSilence : limits_.silence) || (t.tried && !tried) ||
        (t.tried >= tried && wanted < theirs))
      victims.push_back({tried, theirs, l.heard, entry});
  }
  std::sort(victims.begin(), victims.end(), [](const Victim& a, const Victim& b) {
    return std::tuple(a.tried, b.octets, a.heard) < std::tuple(b.tried, a.octets, b.heard);
  });
  size_t n = 0;
  for (uint32_t left = publishedLen_ + len; left > room_; ++n) {
    if (n == victims.size()) return false;
    left -= templateLen(victims[n].layout->first);
  }
  for (size_t i = 0; i < n; ++i) displace(victims[i].layout);
  return publishedLen_ + len <= room_;
}

/// Takes the layout off all templates that use it.
void LocalCollectorTemplates::displace(Layouts::value_type* layout) {
  for (auto& [key, stream] : streams_)
    for (auto& [id, t] : stream.templates)
      if (t.layout == layout) {
        ++counters_.templatesDisplaced;
        t.waits = true;
        release(t);
      }
}

void LocalCollectorTemplates::use(Template& t, Layouts::value_type* layout) {
  Layouts::value_type* const before = std::exchange(t.layout, nullptr);
  t.waits = false;
  ++layout->second.uses[t.sender];
  if (t.tried) ++layout->second.tried;
  layout->second.heard = now_;
  if (before) {
    t.layout = before;
    release(t);
  }
  t.layout = layout;
}

void LocalCollectorTemplates::release(Template& t) {
  Layouts::value_type* const layout = std::exchange(t.layout, nullptr);
  if (!layout) return;
  Layout& l = layout->second;
  if (t.tried) --l.tried;
  const auto uses = l.uses.find(t.sender);
  if (--uses->second == 0) l.uses.erase(uses);
  if (l.uses.empty() && !l.fresh) withdraw(layout);
}

void LocalCollectorTemplates::withdraw(Layouts::value_type* layout) {
  ++changes_;
  layout->second.published = false;
  layout->second.withdrawn = now_;
  publishedLen_ -= templateLen(layout->first);
  withdraw_(layout->second.id);
}

void LocalCollectorTemplates::settle() {
  for (Layouts::value_type* layout : std::exchange(fresh_, {})) {
    layout->second.fresh = false;
    if (layout->second.uses.empty()) withdraw(layout);
  }
}

/// The lowest id that no layout has; 0: there is none.
TemplateId LocalCollectorTemplates::freeId() const {
  uint32_t id = IpfixConst::firstDataSetId();
  for (auto it = ids_.begin(); id <= UINT16_MAX; ++id) {
    if (it != ids_.end() && it->first == id) {
      ++it;
    } else if (!FlowTracking::Constants::isReserved(static_cast<TemplateId>(id))) {
      return static_cast<TemplateId>(id);
    }
  }
  return 0;
}

void LocalCollectorTemplates::roomIs(uint32_t octets) {
  if (octets == room_) return;
  room_ = octets;
  ++changes_;
  // What does not fit any more waits, from the highest id down.
  for (auto& [key, stream] : streams_)
    for (auto& [id, t] : stream.templates)
      if (t.layout && t.records.keptLen > room_) {
        t.waits = true;
        release(t);
      }
  const auto all = ids_;  // a copy: none is added or taken away, but templates may be released
  for (auto it = all.rbegin(); it != all.rend() && publishedLen_ > room_; ++it)
    if (!it->second->second.uses.empty()) displace(it->second);
}

LocalCollectorTemplates::Fullest LocalCollectorTemplates::mostTemplates() const {
  Fullest most;
  for (const auto& [address, sender] : senders_)
    if (sender.templates > most.templates) most = {address, sender.templates, 0};
  return most;
}
LocalCollectorTemplates::Fullest LocalCollectorTemplates::mostOctets() const {
  Fullest most;
  for (const auto& [sender, octets] : ownOctets())
    if (octets > most.octets) most = {sender->first, sender->second.templates, octets};
  return most;
}

}  // namespace agent
