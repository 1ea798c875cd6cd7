#include <algorithm>
#include <array>

#include "agent/control/ControlAnswers.h"
#include "agent/control/ControlRequest.h"

namespace agent {
namespace {
using Json = nlohmann::ordered_json;

constexpr size_t trackedPerPart = 1000;
constexpr std::array<std::string_view, 5> kinds = {"list", "flows", "hosts", "ports", "interfaces"};
constexpr std::array<std::string_view, 2> orders = {"octets", "packets"};

Json rowsJson(const std::vector<FlowRow>& rows) {
  Json all = Json::array();
  for (const FlowRow& row : rows) {
    Json& one = all.emplace_back(Json::object());
    for (const auto& [name, value] : row)
      one[name] = std::visit(
          [](const auto& v) -> Json {
            if constexpr (std::is_same_v<decltype(v), const std::monostate&>) {
              return nullptr;
            } else {
              return v;
            }
          },
          value);
  }
  return all;
}

/// The index among `names` of the text that the request has under `key`; 0 where it has none.
template <size_t n>
size_t oneOf(const ControlRequest& request, const char* key,
             const std::array<std::string_view, n>& names) {
  const std::string text = request.text(key);
  const auto* const it = std::find(names.begin(), names.end(), text);
  if (it != names.end()) return static_cast<size_t>(it - names.begin());
  if (text.empty()) return 0;
  throw Refusal{"badRequest", '\'' + std::string(key) + "' is one of " + joined(names) + ", not " +
                                  inQuotes(text)};
}

[[noreturn]] void refuseAfter(const Json& after) {
  throw Refusal{"badRequest", "'after' is what 'next' of the part before was, not " + after.dump()};
}

FlowLook lookOf(const ControlRequest& request) {
  FlowLook look{.tracker = request.text("tracker"),
                .by = static_cast<FlowLook::By>(oneOf(request, "by", kinds)),
                .order = static_cast<FlowLook::Order>(oneOf(request, "order", orders)),
                .filter = request.text("filter")};
  if (!request.has("count")) return look;
  const Json count = request.at("count");
  if (!count.is_number_unsigned() || count < 1 || count > FlowLook::countMax)
    throw Refusal{"badRequest", "'count' is 1 to " + std::to_string(FlowLook::countMax) + ", not " +
                                    count.dump()};
  look.count = count.get<size_t>();
  return look;
}
}  // namespace

Json ControlAnswers::flows(const ControlRequest& request) {
  if (!host_.flows) throw Refusal{"failed", "there are no flows"};
  const Json after = request.at("after");
  if (!after.is_null() && !(after.is_array() && after.size() == 2 && after[0].is_string() &&
                            after[1].is_number_unsigned()))
    refuseAfter(after);
  try {
    const FlowPart part =
        after.is_null() ? host_.flows->look(lookOf(request))
                        : host_.flows->more(after[0].get<std::string>(), after[1].get<size_t>());
    return {{"tracker", part.tracker},
            {"flows", part.flows},
            {"incomplete", part.incomplete.empty() ? Json(nullptr) : Json(part.incomplete)},
            {"rows", rowsJson(part.rows)},
            {"next", part.survey.empty() ? Json(nullptr) : Json({part.survey, part.next})}};
  } catch (const FlowLookError& e) {
    throw Refusal{e.code, e.what()};
  }
}

Json ControlAnswers::tracked(const ControlRequest& request) {
  if (!host_.flows) throw Refusal{"failed", "there are no flows"};
  const Json after = request.at("after");
  if (!after.is_null() && !after.is_number_unsigned()) refuseAfter(after);
  const size_t first = after.is_null() ? 0 : after.get<size_t>();
  try {
    const auto rows = host_.flows->tracked(request.text("tracker"), first, trackedPerPart);
    return {{"interfaces", rowsJson(rows)},
            {"next", rows.size() < trackedPerPart ? Json(nullptr) : Json(first + rows.size())}};
  } catch (const FlowLookError& e) {
    throw Refusal{e.code, e.what()};
  }
}

}  // namespace agent
