#include <CLI/CLI.hpp>

#include "cli/Check.h"
#include "cli/ToolPlatform.h"
#include "cli/control/ControlCommands.h"
#include "cli/counters/Counters.h"
#include "cli/counters/Flows.h"
#include "cli/counters/Metrics.h"
#include "cli/text/Output.h"
#include "cli/wire/Decode.h"
#include "cli/wire/Listen.h"
#include "platform/linux/Fd.h"

int main(int argc, char** argv) {
  platform::fillStandardDescriptors();
  cli::ToolPlatform host;
  platform::Platform::install(&host);

  CLI::App app{"Watches and checks the export of flow information by IPFIX (RFC 7011).",
               "tarnflow"};
  app.set_version_flag("--version", "tarnflow " TARN_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 all is well, 1 what was asked shows a fault, 2 wrong usage, or the output "
      "could not be written.");

  const CLI::Validator positive(
      [](const std::string& text) {
        double v = 0;
        return CLI::detail::lexical_cast(text, v) && v > 0 ? std::string()
                                                           : text + " is not a number above 0";
      },
      "");

  cli::ListenOptions listen;
  auto* listenCmd =
      app.add_subcommand("listen", "Receive IPFIX on a UDP port and print it decoded");
  listenCmd
      ->add_option("--address", listen.addresses,
                   "Local address to listen on, IPv4 or IPv6; may be given more than once "
                   "[all of this host's]")
      ->type_name("ADDR")
      ->allow_extra_args(false);
  listenCmd->add_option("--port", listen.port, "UDP port; 0: any free one, which is printed")
      ->type_name("PORT")
      ->check(CLI::Range(0, 65535).description(""))
      ->capture_default_str();
  listenCmd->add_flag("--json", listen.json,
                      "One JSON object per line: \"type\" is listening, message, tables, "
                      "localDrops or summary");
  listenCmd->add_option("--messages", listen.messages, "End after N datagrams")
      ->type_name("N")
      ->check(positive);
  listenCmd->add_option("--seconds", listen.seconds, "End after S seconds")
      ->type_name("S")
      ->check(positive);
  listenCmd->add_flag("--quiet-data", listen.quietData,
                      "Count data records instead of printing them");
  listenCmd->add_flag("--tables", listen.tables,
                      "Keep the options data and print it as tables whenever it changed: interface "
                      "names, VRFs, flow trackers, flow keys");
  listenCmd->footer(
      "Prints a summary at the end, which a limit, SIGINT or SIGTERM brings. Exit status: 0; 1 "
      "when "
      "a message was\nmalformed or a sequence number wrong; 2 when it could not listen.");

  auto* showCmd = app.add_subcommand("show", "Show what a running agent does");
  showCmd->require_subcommand(1);
  cli::CountersOptions counters;
  const auto nameOption = [](CLI::App* cmd, std::string& to) {
    cmd->add_option("--name", to, "Shared memory of the agent's statistics")
        ->type_name("/NAME")
        ->capture_default_str()
        ->check([](const std::string& name) {
          return name.size() > 1 && name[0] == '/' && name.find('/', 1) == std::string::npos
                     ? std::string()
                     : "\"" + name + "\" is no name of shared memory: one '/' and it comes first";
        });
  };
  const auto tableOptions = [&](CLI::App* cmd) {
    nameOption(cmd, counters.name);
    cmd->add_flag("--json", counters.json, "One JSON object, on one line");
    cmd->add_option("--watch", counters.watch, "Show again every S seconds")
        ->type_name("S")
        ->check(positive);
  };
  auto* countersCmd =
      showCmd->add_subcommand("counters", "What was exported, per tracker, exporter and collector");
  tableOptions(countersCmd);
  countersCmd->add_option("--tracker", counters.tracker, "Only this tracker's")->type_name("NAME");
  countersCmd->add_option("--exporter", counters.exporter, "Only exporters of this name")
      ->type_name("NAME");
  countersCmd->footer(
      "Reads shared memory; the agent notices nothing. Exit status: 0; 1 when no agent runs or "
      "nothing was sent yet.");

  auto* flowsCmd = showCmd->add_subcommand(
      "flows", "What the software flow path saw, dropped, holds and reported, per tracker");
  tableOptions(flowsCmd);
  flowsCmd->footer(
      "Reads shared memory; the agent notices nothing. Exit status: 0; 1 when no agent runs or no "
      "tracker looks at packets.");

  cli::MetricsOptions metrics;
  auto* metricsCmd = app.add_subcommand(
      "metrics", "Serve what the agent counts to Prometheus, over HTTP or as a file");
  nameOption(metricsCmd, metrics.name);
  auto* listenOption = metricsCmd->add_option("--listen", metrics.listen, "Where to serve /metrics")
                           ->type_name("ADDR:PORT")
                           ->capture_default_str()
                           ->check(cli::listenError);
  auto* textFile = metricsCmd
                       ->add_option("--textfile", metrics.textFile,
                                    "Write this file instead, once, for node-exporter's text-file "
                                    "collector")
                       ->type_name("FILE")
                       ->excludes(listenOption);
  metricsCmd->add_option("--interval", metrics.interval, "Write the file again every S seconds")
      ->type_name("S")
      ->check(positive)
      ->needs(textFile);
  metricsCmd->footer(
      "Reads shared memory; goes on while the agent is stopped and started. Exit status: 0; 1 when "
      "it could not listen or write.");
  cli::ControlCommands control(app, *showCmd);

  cli::DecodeOptions decode;
  auto* decodeCmd = app.add_subcommand("decode", "Print the IPFIX messages of a capture decoded");
  decodeCmd->add_option("FILE", decode.file, "The capture, pcap or pcapng")
      ->required()
      ->type_name("");
  decodeCmd
      ->add_option("--port", decode.port,
                   "Only what goes to this UDP port, IPFIX or not [what looks like IPFIX]")
      ->type_name("PORT");
  decodeCmd->add_option("--messages", decode.messages, "End after N messages")
      ->type_name("N")
      ->check(positive);
  decodeCmd->add_flag("--json", decode.json, "One JSON object per line, as listen has them");
  decodeCmd->add_flag("--quiet-data", decode.quietData,
                      "Count data records instead of printing them");
  decodeCmd->add_flag("--tables", decode.tables,
                      "The options data as tables, as they are at the end of the capture");
  decodeCmd->footer(
      "Exit status: 0; 1 when a message was malformed, a sequence number wrong, something not "
      "captured whole,\nor there was no IPFIX; 2 when the file cannot be read.");

  std::string file;
  auto* checkCmd = app.add_subcommand("check", "Validate a configuration file as the agent would");
  checkCmd->add_option("FILE", file, "The configuration file")->required()->type_name("");
  checkCmd->footer(
      "Exit status: 0 valid; 1 not, with file:line:column of every error; 2 when tarnflowd "
      "is not installed.");

  const auto command = [&] {
    if (*listenCmd) return cli::listen(listen);
    if (*countersCmd) return cli::showCounters(counters);
    if (*flowsCmd) return cli::showFlows(counters);
    if (*metricsCmd) return cli::metrics(metrics);
    if (*decodeCmd) return cli::decode(decode);
    if (const auto status = control.run()) return *status;
    return cli::check(file);
  };
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return cli::Output::status(app.exit(e) == 0 ? 0 : 2);
  }
  return cli::Output::status(command());
}
