#include "cli/control/Top.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "cli/control/FlowRows.h"
#include "cli/control/Screen.h"
#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/text/Style.h"
#include "cli/text/Text.h"

namespace cli {
namespace {
using Clock = std::chrono::steady_clock;

constexpr size_t countOnce = 20;
constexpr size_t countMax = 1000;  // that the agent answers
constexpr size_t linesAround = 5;  // above and below the rows

FlowRows look(ControlClient& agent, const TopOptions& o, size_t count) {
  nlohmann::ordered_json request = {
      {"request", "flows"}, {"by", o.by}, {"order", o.order}, {"count", count}};
  if (!o.tracker.empty()) request["tracker"] = o.tracker;
  if (!o.filter.empty()) request["filter"] = o.filter;
  return FlowRows::ask(agent, request, count);
}

std::string title(const FlowRows& found, const TopOptions& o) {
  std::string text =
      fmt::format("tracker {}: the heaviest {} by {}, of {} under way", nameText(found.tracker),
                  o.by, o.order, plural(found.flows, "flow"));
  if (!o.filter.empty()) text += ", with " + shown(o.filter);
  if (!found.incomplete.is_null())
    text += "; incomplete: " + shown(found.incomplete.get<std::string>());
  return text;
}

int once(ControlClient& agent, const TopOptions& o) {
  const FlowRows found = look(agent, o, o.count.value_or(countOnce));
  if (o.json) {
    auto json = found.json();
    json["by"] = o.by;
    json["order"] = o.order;
    Output::write(jsonLine(json));
  } else {
    const Style style = Style::ofOutput();
    Output::write(title(found, o) + "\n\n" +
                  found.table().text(0, [&](size_t row, const std::string& line) {
                    return row == 0 ? style.strong(line) : line;
                  }));
  }
  return found.incomplete.is_null() ? 0 : 1;
}

/// What a key changes. False: it ends the program.
bool take(char key, TopOptions& o) {
  switch (key) {
    case 'q':
      return false;
    case 'o':
      o.order = "octets";
      break;
    case 'p':
      o.order = "packets";
      break;
    case 'f':
      o.by = "flows";
      break;
    case 'h':
      o.by = "hosts";
      break;
    case 't':
      o.by = "ports";
      break;
    case 'i':
      o.by = "interfaces";
      break;
    default:
      break;
  }
  return true;
}

/// Writes the text of one look. Each look connects anew: the agent closes connections that are
/// silent. False: a key or a signal came before the answer, and the text stays as it was.
bool look(const Screen& screen, const TopOptions& o, std::string& to) {
  const size_t rows = Screen::size().rows;
  const size_t fit = rows > linesAround ? rows - linesAround : 1;
  std::string text;
  try {
    ControlClient agent(o.socket, ControlClient::patience, screen.inputs());
    const FlowRows found = look(agent, o, std::min({o.count.value_or(fit), fit, countMax}));
    text = title(found, o) + "\n\n" + found.table().text(0);
  } catch (const Interrupted&) {
    return false;
  } catch (const NoAgent& e) {
    text = e.what() + std::string("\n");
  } catch (const Refused& e) {
    text = "the agent refuses: " + shown(e.what()) + '\n';
  } catch (const nlohmann::json::exception& e) {
    text = "the agent's answer is not understood: " + shown(e.what()) + '\n';
  }
  to = text + "\nq quit  by: o octets  p packets  list: f flows  h hosts  t ports  i interfaces\n";
  return true;
}

int live(TopOptions& o) {
  Screen screen;
  const auto interval =
      std::chrono::milliseconds(static_cast<int64_t>(std::clamp(o.interval, 0.1, 86400.0) * 1000));
  std::string text;
  for (;;) {
    const bool whole = look(screen, o, text);
    const auto next = Clock::now() + (whole ? interval : interval.zero());
    Screen::Event event;
    do {  // draws again where the size changes, until a key is pressed or the next look is due
      if (!screen.draw(text, 2)) return 0;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
      event = screen.wait(std::max(left, interval.zero()));
    } while (event.kind == Screen::Event::resized && Clock::now() < next);
    if (event.kind == Screen::Event::end) return 0;
    if (event.kind == Screen::Event::pressed && !take(event.key, o)) return 0;
  }
}
}  // namespace

int top(ControlClient& agent, TopOptions options) {
  if (options.once || options.json || !isatty(STDOUT_FILENO)) return once(agent, options);
  look(agent, options, 1);  // reports wrong options before the screen is taken
  return live(options);
}

}  // namespace cli
