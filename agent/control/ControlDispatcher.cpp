#include "agent/control/ControlDispatcher.h"

#include <algorithm>

#include "agent/control/ControlRequest.h"
#include "agent/host/Printable.h"

namespace agent {
using Json = nlohmann::ordered_json;

std::string ControlDispatcher::answer(const ControlPeer& peer, std::string_view line) {
  Json out;
  Json id;
  try {
    const Json json = Json::parse(line, nullptr, false);
    if (!json.is_object())
      throw Refusal{"badRequest",
                    "a request is one JSON object on one line, such as "
                    "{\"request\":\"agent\"}"};
    const ControlRequest request{json, peer};
    if (json.contains("id")) id = json.at("id");
    const std::string name = request.text("request");
    const auto verbs = ControlAnswers::verbs();
    const auto verb =
        std::find_if(verbs.begin(), verbs.end(), [&](const auto& v) { return v.name == name; });
    if (verb == verbs.end())
      throw Refusal{"unknownRequest", "'request' is one of " +
                                          joined(verbs, &ControlAnswers::Verb::name) +
                                          (name.empty() ? "" : ", not " + inQuotes(name))};
    for (const auto& [key, value] : json.items()) {
      if (key == "request" || key == "id" ||
          std::find(verb->keys.begin(), verb->keys.end(), key) != verb->keys.end())
        continue;
      throw Refusal{"badRequest", inQuotes(key) + " is unknown to " + name +
                                      (verb->keys.empty() ? ", which takes nothing"
                                                          : "; it takes " + joined(verb->keys))};
    }
    if (verb->changes) request.mustMayChange();
    out = (answers_.*verb->run)(request);
    out["ok"] = true;
  } catch (const Refusal& r) {
    out = {{"ok", false}, {"code", r.code}, {"error", r.text}};
  } catch (const std::exception& e) {  // a fault of ours must not end the agent
    out = {{"ok", false}, {"code", "failed"}, {"error", printable(e.what())}};
  }
  if (!id.is_null()) out["id"] = id;
  return out.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace agent
