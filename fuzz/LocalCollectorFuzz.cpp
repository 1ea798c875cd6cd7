#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "agent/device/LocalCollectorDecoder.h"
#include "platform/Platform.h"
#include "platform/sim/SimPlatform.h"

namespace {
using namespace agent;

void check(bool good) {
  if (!good) std::abort();
}

Ptr<const Ipfix::ElementIdColl> registry() {
  static const auto sim = simPlatform();
  Platform::install(sim.get());
  auto all = Ipfix::elementIdCollFactory();
  all->doInitialize();
  addIanaElements(*all);
  return all;
}
}  // namespace

// The input is datagrams one after the other, each behind one octet that picks the sender and what
// happens before (time passes, the room for messages changes), and two that give its length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto elements = registry();
  std::set<FlowTracking::TemplateId> published;
  uint64_t records = 0;
  const LocalCollectorDecoder::Limits limits{.templates = 16,
                                             .templatesPerSender = 8,
                                             .fields = 64,
                                             .layouts = 8,
                                             .templateLifetime = Seconds(100)};
  LocalCollectorDecoder decoder(
      elements,
      {.publish =
           [&](FlowTracking::TemplateId id, const PassedLayout& layout) {
             check(id >= 256 && !FlowTracking::Constants::isReserved(id));
             check(published.insert(id).second && !layout.empty());
             for (const PassedField& f : layout)
               check(elements->elementIdCollHas(f.element) && f.len > 0 &&
                     elements->elementIdColl(f.element).enterpriseIe() == f.enterprise);
           },
       .withdraw = [&](FlowTracking::TemplateId id) { check(published.erase(id) == 1); },
       .records =
           [&](FlowTracking::TemplateId id, std::span<const uint16_t> lens,
               std::string_view octets) {
             check(published.contains(id) && !lens.empty());
             const size_t len = std::accumulate(lens.begin(), lens.end(), size_t{0});
             check(std::ranges::find(lens, 0) == lens.end());
             check(lens.size() == 1 ? octets.size() % len == 0 : octets.size() == len);
             uint64_t sum = 0;  // reads every octet
             for (const char c : octets) sum += static_cast<unsigned char>(c);
             check(sum <= octets.size() * 255);
             records += lens.size() == 1 ? octets.size() / len : lens.size();
           }},
      limits);
  std::span<const uint8_t> rest(data, size);
  while (rest.size() >= 3) {
    const uint8_t what = rest[0];
    size_t len = size_t{rest[1]} << 8 | rest[2];
    rest = rest.subspan(3);
    len = std::min(len, rest.size());
    // A copy of its own, so that a read behind its end is seen.
    const std::vector<char> octets(rest.begin(), rest.begin() + static_cast<ptrdiff_t>(len));
    rest = rest.subspan(len);
    decoder.templates().exporterAddressIs((what & 0x08) != 0);
    if (what & 0x10) decoder.templates().settle();
    if (what & 0x20) decoder.templates().advance(Seconds(what & 0x40 ? 301 : 50));
    if (what & 0x80) decoder.templates().roomIs(what & 0x40 ? 40 : 1432);
    decoder.decode({octets.data(), octets.size()}, IpAddr(what & 7u), 4739);

    const LocalCollectorCounters& n = decoder.counters();
    check(n.recordsPassed == records);
    check(n.recordsIn == n.recordsPassed + n.recordsOfRefused + n.recordsTooLarge);
    const LocalCollectorTemplates& t = decoder.templates();
    check(t.streams() <= t.templates() && t.templates() <= limits.templates &&
          t.layouts() <= limits.layouts && published.size() <= limits.layouts);
    check(t.mostTemplates().templates <= limits.templatesPerSender);
    check(t.mostOctets().octets <= t.publishedLen());
  }
  return 0;
}
