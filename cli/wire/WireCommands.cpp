#include "cli/wire/WireCommands.h"

#include "cli/text/Arguments.h"
#include "cli/wire/Decode.h"
#include "cli/wire/Listen.h"

namespace cli {

void addListen(CLI::App& app, int& status) {
  auto [cmd, options] = addCommand<ListenOptions>(
      app, "listen", "Receive IPFIX on a UDP port and print it decoded", status, listen);
  cmd->add_option("--address", options.addresses,
                  "Local address to listen on, IPv4 or IPv6; may be given more than once "
                  "[all of this host's]")
      ->type_name("ADDR")
      ->allow_extra_args(false);
  cmd->add_option("--port", options.port, "UDP port; 0: any free one, which is printed")
      ->type_name("PORT")
      ->check(CLI::Range(0, 65535).description(""))
      ->capture_default_str();
  cmd->add_flag("--json", options.json,
                "One JSON object per line: \"type\" is listening, message, tables, "
                "localDrops or summary");
  cmd->add_option("--messages", options.messages, "End after N datagrams")
      ->type_name("N")
      ->check(positive());
  cmd->add_option("--seconds", options.seconds, "End after S seconds")
      ->type_name("S")
      ->check(positive());
  cmd->add_flag("--quiet-data", options.quietData, "Count data records instead of printing them");
  cmd->add_flag("--tables", options.tables,
                "Keep the options data and print it as tables whenever it changed: interface "
                "names, VRFs, flow trackers, flow keys");
  cmd->footer(
      "Prints a summary at the end, which a limit, SIGINT or SIGTERM brings. Exit status: 0; 1 "
      "when "
      "a message was\nmalformed or a sequence number wrong; 2 when it could not listen.");
}

void addDecode(CLI::App& app, int& status) {
  auto [cmd, options] = addCommand<DecodeOptions>(
      app, "decode", "Print the IPFIX messages of a capture decoded", status, decode);
  cmd->add_option("FILE", options.file, "The capture, pcap or pcapng")->required()->type_name("");
  cmd->add_option("--port", options.port,
                  "Only what goes to this UDP port, IPFIX or not [what looks like IPFIX]")
      ->type_name("PORT");
  cmd->add_option("--messages", options.messages, "End after N messages")
      ->type_name("N")
      ->check(positive());
  cmd->add_flag("--json", options.json, "One JSON object per line, as listen has them");
  cmd->add_flag("--quiet-data", options.quietData, "Count data records instead of printing them");
  cmd->add_flag("--tables", options.tables,
                "The options data as tables, as they are at the end of the capture");
  cmd->footer(
      "Exit status: 0; 1 when a message was malformed, a sequence number wrong, something not "
      "captured whole,\nor there was no IPFIX; 2 when the file cannot be read.");
}

}  // namespace cli
