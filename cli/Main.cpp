#include "cli/Check.h"
#include "cli/ToolPlatform.h"
#include "cli/control/ControlCommands.h"
#include "cli/counters/CountersCommands.h"
#include "cli/counters/Flows.h"
#include "cli/text/Arguments.h"
#include "cli/text/Output.h"
#include "cli/wire/WireCommands.h"
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

  int status = 0;
  cli::addListen(app, status);
  CLI::App* const show = app.add_subcommand("show", "Show what a running agent does");
  show->require_subcommand(1);
  cli::addCounters(*show, status);
  cli::addFlows(
      *show, status,
      {[](const cli::FlowsOptions& o) {
         return cli::listFlows({o.socket, o.tracker, o.filter, o.limit, o.json});
       },
       [](const cli::FlowsOptions& o, int pid) { return cli::trackedInterfaces(o.socket, pid); }});
  cli::addMetrics(app, status);
  cli::addControl(app, *show, status);
  cli::addDecode(app, status);
  cli::addCheck(app, status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    status = app.exit(e) == 0 ? 0 : 2;
  }
  return cli::Output::status(status);
}
