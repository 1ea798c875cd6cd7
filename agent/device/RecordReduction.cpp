#include "agent/device/RecordReduction.h"

#include <algorithm>

#include "elements/Elements.h"

namespace agent {
using Ipfix::IpfixConst;

RecordReduction::RecordReduction(std::string_view fields, const Ipfix::ElementIdColl& registry) {
  for (size_t at = 0; at < fields.size();) {
    const uint16_t word = u16At(fields, at);
    const uint16_t len = u16At(fields, at + 2);
    const bool enterprise = specifierLen(word) > 4;
    const uint32_t number = enterprise ? u32At(fields, at + 4) : 0;
    at += specifierLen(word);
    const auto element = static_cast<uint16_t>(word & 0x7fff);
    const bool variable = len == IpfixConst::variableLen();

    const Ipfix::ElementId& known = registry.elementIdColl(element);
    // Numbers may be shortened (RFC 7011, 6.2), addresses and times not.
    const bool possible =
        known.len() == IpfixConst::variableLen()
            ? len > 0
            : len <= known.len() &&
                  elements::typeAllows(elements::typeOf(enterprise, element, known.len()), len);
    bool keep = false;
    if (!registry.elementIdCollHas(element) || known.enterpriseIe() != enterprise ||
        (enterprise && number != IpfixConst::enterpriseNumber())) {
      ++unknown;
    } else if (!possible) {
      ++badLength;
    } else {
      keep = true;
      passed.push_back({element, len, enterprise});
    }
    minLen += variable ? 1 : len;
    fixed = fixed && !variable;
    whole = whole && keep;
    if (keep && !variable) keptLen += len;
    if (!variable && !steps.empty() && !steps.back().variable && steps.back().keep == keep &&
        steps.back().len + uint32_t{len} <= UINT16_MAX) {
      steps.back().len = static_cast<uint16_t>(steps.back().len + len);
    } else {
      steps.push_back({variable ? uint16_t{0} : len, variable, keep});
    }
  }
}

void addIanaElements(Ipfix::ElementIdColl& registry) {
  using elements::Type;
  for (uint16_t id = 1; id <= elements::lastIanaElement(); ++id) {
    const elements::Element* const e = elements::ianaElement(id);
    if (!e || registry.elementIdCollHas(id) || e->type == Type::subTemplateList ||
        e->type == Type::subTemplateMultiList)
      continue;
    const size_t len = std::min<size_t>(elements::typeLen(e->type), IpfixConst::variableLen());
    registry.elementIdCollIs(
        Ipfix::ElementId(false, id, static_cast<uint32_t>(len), std::string(e->name)));
  }
}

void RecordReduction::exporterAddressIs(const platform::IpGenAddr& address) {
  constexpr uint16_t exporterIPv4Address = 130;
  constexpr uint16_t exporterIPv6Address = 131;
  if (passed.empty() || std::any_of(passed.begin(), passed.end(), [](const PassedField& f) {
        return !f.enterprise &&
               (f.element == exporterIPv4Address || f.element == exporterIPv6Address);
      }))
    return;
  if (address.isIpv6()) {
    const auto& octets = address.ip6Addr().octets();
    behind.assign(octets.begin(), octets.end());
  } else {
    for (int shift = 24; shift >= 0; shift -= 8)
      behind += static_cast<char>(address.ipAddr().value() >> shift);
  }
  const auto len = static_cast<uint16_t>(behind.size());
  passed.push_back({address.isIpv6() ? exporterIPv6Address : exporterIPv4Address, len, false});
  keptLen += len;
  whole = false;
}

void RecordReduction::takeFixed(const char* records, uint64_t n, std::string& kept) const {
  kept.reserve(kept.size() + n * keptLen);
  for (uint64_t i = 0; i < n; ++i) {
    for (const Step& step : steps) {
      if (step.keep) kept.append(records, step.len);
      records += step.len;
    }
    kept += behind;
  }
}

bool RecordReduction::take(std::string_view rest, size_t& len, std::string* kept) const {
  constexpr uint8_t longLength = 255;  // three octets tell the length (RFC 7011, 7)
  len = 0;
  for (const Step& step : steps) {
    size_t n = step.len;
    if (step.variable) {
      if (rest.size() - len < 1) return false;
      n = size_t{octetAt(rest, len)} + 1;
      if (octetAt(rest, len) == longLength) {
        if (rest.size() - len < 3) return false;
        n = size_t{u16At(rest, len + 1)} + 3;
      }
    }
    if (rest.size() - len < n) return false;
    if (kept && step.keep) kept->append(rest.substr(len, n));
    len += n;
  }
  if (kept) *kept += behind;
  return true;
}

}  // namespace agent
