#pragma once
#include <functional>
#include <string>

#include "agent/exports/AddressChoice.h"
#include "agent/exports/CollectorHosts.h"
#include "agent/exports/Entities.h"
#include "agent/exports/InterfaceIndexes.h"
#include "agent/exports/LibraryTrees.h"
#include "agent/exports/VrfIds.h"
#include "agent/network/Networks.h"

namespace agent {

struct ExportsHost {
  Ptr<EventLoop> loop;
  AgentLog& log;
  Networks& networks;
  Ptr<const NetworkList> interfaces;  ///< whose interfaces are exported
  Ptr<Ipfix::IpfixInitSm> ipfix;
  Ptr<FlowTracking::ConfigReq> configReq;
  Ptr<Tarn::Ipfix::CollectorStatistics> statistics;
};

/// Turns settings and networks into the library's entities and reactors, and lets other parts of
/// the agent read them.
class Exports {
 public:
  /// `readiness` is called when the count of ready exporters changed.
  Exports(const ExportsHost& host, std::function<void()> readiness);

  /// Makes what runs equal to the settings by the smallest change. `removed` is called when the
  /// trackers that are to go are gone, and their reactors still run.
  Changes apply(const Settings& settings, const std::function<void()>& removed);

  /// As they were given to `apply`.
  const Settings& settings() const { return addresses_.settings(); }
  /// The same with the address that each collector with a host has now, if it has one.
  const Settings& runningSettings() const { return entities_.settings(); }
  size_t readyExporters() const { return entities_.readyExporters(); }
  /// The templates of software trackers' records: see Entities.
  FlowTracking::TemplateId firstFlowTemplate(const std::string& tracker) const {
    return entities_.firstFlowTemplate(tracker);
  }
  bool forgetTemplates(const std::function<bool(const std::string& tracker)>& unused) {
    return entities_.forgetTemplates(unused);
  }
  const LibraryTrees& trees() const { return trees_; }
  const LibraryTree& tree(LibraryTrees::Type type) const { return trees_.tree(type); }
  /// Why a host cannot be looked up; empty: it can, or it is not known yet.
  std::string hostProblem(const std::string& host) const { return hosts_.resolver().problem(host); }
  const Ptr<FlowTracking::IntfIndexMap>& interfaces() const { return interfaceIndexes_.map(); }
  const Ptr<Vrf::VrfIdMap::Status>& vrfs() const { return vrfIds_.status(); }
  const NetworkList& networks() const { return *networks_.list(); }
  const Ipfix::ElementIdColl& elements() const { return *elements_; }

 private:
  Networks& networks_;
  const Ptr<Ipfix::ElementIdColl> elements_;
  // Before exporters hear of a network its interfaces have their indexes: what exporters send first
  // is complete.
  InterfaceIndexes interfaceIndexes_;
  VrfIds vrfIds_;
  LibraryTrees trees_;
  CollectorHosts hosts_;
  Entities entities_;
  AddressChoice addresses_;
};

}  // namespace agent
