#include "agent/flow/EgressRoutes.h"

#include <sys/socket.h>

#include <cstring>

#include "agent/flow/FlowRecord.h"

namespace agent::flow {
namespace {
uint32_t numberAt(const char* at) {
  uint32_t v = 0;
  std::memcpy(&v, at, sizeof v);
  return networkOrder(v);
}
}  // namespace

EgressRoutes::EgressRoutes(const RecordPlan& plan) {
  for (size_t place = 0; place < packetKinds; ++place) {
    Offsets& o = offsets_[place];
    for (const auto& [field, key] : plan.layouts()[place].fields) {
      switch (field->element) {  // of IANA's IPFIX registry
        case 8:                  // sourceIPv4Address, sourceIPv6Address
        case 27:
          o.src = o.recordLen;
          break;
        case 12:  // destinationIPv4Address, destinationIPv6Address
        case 28:
          o.dst = o.recordLen;
          o.addressLen = field->len;
          break;
        case 5:  // ipClassOfService
          o.tos = o.recordLen;
          break;
        case 10:  // ingressInterface
          o.ingress = o.recordLen;
          break;
        case 14:  // egressInterface
          o.egress = o.recordLen;
          break;
        case 15:  // ipNextHopIPv4Address, ipNextHopIPv6Address
        case 62:
          o.nextHop = o.recordLen;
          break;
        default:
          break;
      }
      o.recordLen += field->len;
    }
    if (o.src == Offsets::none || o.ingress == Offsets::none) o.addressLen = 0;
  }
}

void EgressRoutes::interfacesIs(const std::map<uint32_t, uint32_t>& exported) {
  if (exported == exported_) return;
  exported_ = exported;
  kernel_.clear();
  for (const auto& [kernel, index] : exported_) kernel_.emplace(index, kernel);
}

/// False: nothing is to be asked, since the record has its egress interface, or no ingress
/// interface of this namespace.
bool EgressRoutes::question(const Offsets& o, const char* record, RouteQuestion& q) const {
  if (o.egress != Offsets::none && numberAt(record + o.egress) != 0) return false;
  const auto interface = kernel_.find(numberAt(record + o.ingress));
  if (interface == kernel_.end()) return false;
  q.interface = interface->second;
  q.family = o.addressLen == 4 ? AF_INET : AF_INET6;
  std::memcpy(q.src.data(), record + o.src, o.addressLen);
  std::memcpy(q.dst.data(), record + o.dst, o.addressLen);
  if (o.tos != Offsets::none) q.tos = static_cast<uint8_t>(record[o.tos]);
  return true;
}

void EgressRoutes::answer(const Offsets& o, const Route& route, char* record) const {
  if (route.to == Route::To::nowhere) return;
  uint32_t egress = FlowTracking::IntfIndexMap::cpuIndex;
  if (route.to == Route::To::away) {
    const auto exported = exported_.find(route.interface);
    egress = exported == exported_.end() ? 0 : exported->second;
    if (o.nextHop != Offsets::none)
      std::memcpy(record + o.nextHop, route.nextHop.data(), o.addressLen);
  }
  if (o.egress != Offsets::none) FieldWriter(record + o.egress).put(egress);
}

void EgressRoutes::complete(uint8_t place, std::span<char> records) {
  const Offsets& o = offsets_[place];
  if (o.addressLen == 0) return;
  questions_.clear();
  records_.clear();
  for (size_t at = 0; at + o.recordLen <= records.size(); at += o.recordLen)
    if (RouteQuestion q; question(o, records.data() + at, q)) {
      questions_.push_back(q);
      records_.push_back(records.data() + at);
    }
  if (questions_.empty()) return;
  answers_.resize(questions_.size());
  lookups_.ask(questions_, answers_);
  for (size_t i = 0; i < records_.size(); ++i) answer(o, answers_[i], records_[i]);
}

}  // namespace agent::flow
