#pragma once
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/exports/Entities.h"

namespace agent {

/// Chooses the address of each collector that is given by a host's name, and applies settings to
/// the entities with the addresses chosen.
///
/// The address is the first of the host's in a family that the collector's exporter has a source
/// address for, and that no other collector of the exporter has with the same port. The collector
/// keeps the address it has as long as that is still such an address of the host's, since another
/// address is another session: its sequence numbers start at 0.
class AddressChoice {
 public:
  struct Hosts {
    /// The host's addresses in the order to be tried; null as long as there are none.
    std::function<const std::vector<IpGenAddr>*(const std::string& host)> addresses;
    /// Asks for a call of `review`, later: an exporter has other source addresses.
    std::function<void()> later;
  };

  AddressChoice(Entities& entities, const LibraryTrees& trees, AgentLog& log, Hosts hosts);
  ~AddressChoice();

  Changes apply(const Settings& settings);
  /// Chooses again and applies what changed: hosts or exporters have other addresses.
  void review();
  /// As given: without the addresses chosen, which `Entities::settings` has.
  const Settings& settings() const { return settings_; }

 private:
  class SourceWatcher;
  using Name = std::pair<std::string, std::string>;  // of tracker and exporter
  struct State {
    std::unique_ptr<SourceWatcher> watcher;
    std::map<std::string, std::string> told;  // by collector, what the log said last
  };

  Settings chosen(const Settings& settings);
  State choose(const Name& name, ExporterSettings& exporter, State before);
  void tell(const Name& name, const std::string& collector, const CollectorSettings& c,
            std::string& told);

  Entities& entities_;
  const LibraryTrees& trees_;
  AgentLog& log_;
  const Hosts hosts_;
  Settings settings_;
  std::map<Name, State> states_;  // of exporters with a collector given by name
};

}  // namespace agent
