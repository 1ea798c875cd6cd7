#include "agent/device/RecordReduction.h"

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

void RecordReduction::takeFixed(const char* records, uint64_t n, std::string& kept) const {
  kept.reserve(kept.size() + n * keptLen);
  for (uint64_t i = 0; i < n; ++i)
    for (const Step& step : steps) {
      if (step.keep) kept.append(records, step.len);
      records += step.len;
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
  return true;
}

}  // namespace agent
