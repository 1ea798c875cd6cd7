#pragma once
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/device/LocalCollectorTemplates.h"

namespace agent {

/// Reads the IPFIX messages of devices (RFC 7011) and reduces their data records to the fields that
/// the registry knows: the exporters' templates can describe no others. The input is not trusted:
/// every length is checked, what is remembered is bounded, and nothing of it stops the agent.
class LocalCollectorDecoder {
 public:
  using Limits = LocalCollectorTemplates::Limits;
  /// Called with the results.
  struct Output {
    LocalCollectorTemplates::Publish publish;
    LocalCollectorTemplates::Withdraw withdraw;
    /// One or more records, back to back, of a published layout. `lens`: the length that all of
    /// them have, or the length of each.
    std::function<void(FlowTracking::TemplateId, std::span<const uint16_t> lens,
                       std::string_view records)>
        records;
  };

  LocalCollectorDecoder(Ptr<const Ipfix::ElementIdColl> registry, Output output,
                        const Limits& limits = {});
  LocalCollectorDecoder(const LocalCollectorDecoder&) = delete;
  LocalCollectorDecoder& operator=(const LocalCollectorDecoder&) = delete;

  /// Takes one datagram.
  void decode(std::string_view datagram, const IpGenAddr& from, uint16_t port);
  const LocalCollectorCounters& counters() const { return counters_; }
  const LocalCollectorTemplates& templates() const { return templates_; }
  LocalCollectorTemplates& templates() { return templates_; }

 private:
  using StreamKey = LocalCollectorTemplates::StreamKey;
  using Stream = LocalCollectorTemplates::Stream;
  using Template = LocalCollectorTemplates::Template;

  bool framed(std::string_view message);
  void templateSet(const StreamKey& key, std::string_view set, bool options);
  bool dataSet(Template& t, std::string_view set, uint64_t& records);
  bool variableRecords(const Template& t, std::string_view set, uint64_t& records);
  void checkSequence(Stream& stream, uint32_t sequence, uint32_t records, uint32_t options,
                     bool counted);

  LocalCollectorCounters counters_;
  LocalCollectorTemplates templates_;
  const decltype(Output::records) records_;
  std::string scratch_;
  std::vector<uint16_t> lens_;
};

}  // namespace agent
