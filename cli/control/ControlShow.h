#pragma once
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "cli/text/Style.h"

/// The agent's answers for people and for programs; docs/tarnflow.md has the keys.
namespace cli {

/// Shows the live entity tree. Takes its rows in the order in which the agent sends them, and
/// leaves out the members of a collection behind the first `membersMax`.
class StateView {
 public:
  using Json = nlohmann::ordered_json;

  enum class Form { text, json };
  /// `membersMax` 0: shows all members.
  StateView(Form form, size_t membersMax) : form_(form), membersMax_(membersMax) {}
  /// Takes one part of the tree, rows of [path, text]. Returns the path behind which the next part
  /// shall begin: null, that of the last row; or a collection whose members were shown as far as
  /// they may be, so that the rest of them is not even fetched.
  Json take(const Json& rows);

  const Json& json() const { return json_; }
  /// The lines for what was taken since the last call.
  std::string takeText(const Style& style);

 private:
  /// A collection that the last row is in.
  struct Open {
    std::string path;
    std::string member;  // the last one
    size_t members = 0;  // so far
    bool cut = false;    // no more of them are shown
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
