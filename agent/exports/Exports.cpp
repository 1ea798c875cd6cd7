#include "agent/exports/Exports.h"

#include <set>

namespace agent {

Exports::Exports(const ExportsHost& host, std::function<void()> readiness)
    : networks_(host.networks),
      elements_(host.ipfix->elementIdCollection()),
      interfaceIndexes_(host.interfaces, host.log),
      vrfIds_(networks_.list(), host.log),
      trees_({host.loop, host.ipfix, host.configReq, host.statistics, interfaceIndexes_.map(),
              vrfIds_.status()}),
      hosts_(host.loop, host.log, trees_, [this] { addresses_.review(); }),
      entities_(
          trees_, [this](const VrfName& vrf) { return networks_.network(vrf); }, elements_,
          host.log, std::move(readiness)),
      addresses_(entities_, trees_, host.log,
                 {[this](const std::string& name) { return hosts_.resolver().addresses(name); },
                  [this] { hosts_.changedSoon(); }}) {}

Changes Exports::apply(const Settings& settings, const std::function<void()>& removed) {
  vrfIds_.configuredIs(settings.vrfs);
  hosts_.follow(settings);
  const Changes changes = addresses_.apply(settings);
  removed();
  trees_.followTrackers();
  std::set<VrfName> vrfs;
  for (const auto& [trackerName, tracker] : settings.trackers)
    for (const auto& [name, exporter] : tracker.exporters) vrfs.insert(exporter.vrf);
  networks_.keepOnly(vrfs);
  return changes;
}

}  // namespace agent
