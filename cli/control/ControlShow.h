#pragma once
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "cli/text/Style.h"

/// The agent's answers for people and for programs; docs/tarnflow.md has the keys.
namespace cli {

/// Takes the rows of the live entity tree as they come, in order, and cuts collections short.
class StateView {
 public:
  using Json = nlohmann::ordered_json;

  enum class Form { text, json };
  /// Shows so many members of each collection; 0: all.
  StateView(Form form, size_t membersMax) : form_(form), membersMax_(membersMax) {}
  /// One part of the tree: [path, text] each. Returns where to go on: null, where this part ends;
  /// or behind the collection that is cut short and would go on.
  Json take(const Json& rows);

  const Json& json() const { return json_; }
  /// What came since the last call, as lines.
  std::string takeText(const Style& style);

 private:
  struct Open {
    std::string path;  // of a collection that the last row is in
    std::string member;
    size_t members = 0;
    bool cut = false;
  };
  bool cut_p(const std::vector<std::string>& parts);
  void add_p(const std::vector<std::string>& parts, const Json& text);

  struct Line {
    size_t depth;
    std::string name;
    bool member;
    std::string text;
  };

  const Form form_;
  const size_t membersMax_;
  std::vector<Open> open_;
  std::vector<std::string> last_;
  std::vector<Line> lines_;
  Json json_ = Json::object();
};

// Each takes the whole answer's list.
std::string collectorsText(const nlohmann::ordered_json& collectors, double now,
                           const Style& style);
std::string templatesText(const nlohmann::ordered_json& templates, double now, const Style& style);
/// One table: its name, how many records it has, and those that are in `rows`.
std::string tableText(const std::string& name, uint64_t records, const nlohmann::ordered_json& rows,
                      const Style& style);

}  // namespace cli
