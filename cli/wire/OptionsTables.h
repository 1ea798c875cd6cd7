#pragma once
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/wire/UdpReceiver.h"
#include "cli/wire/decoder/Decoder.h"

namespace cli {

/// The options data of each stream as tables: what a collector knows of the exporter's interfaces,
/// VRFs, trackers and flow keys, or of whatever else it describes. A row is named by its scope
/// fields; a later record of the same scope takes its place. IPFIX has no form for a removal, so a
/// row that is gone stays, growing old.
class OptionsTables {
 public:
  /// Takes the options data of one decoded message. True: a row is new or changed.
  bool take(const Datagram& from, const decoder::Message& message);

  /// The tables of every stream; `rowsMax` per table, and how many more there are.
  std::string text(const decoder::Decoder& decoder, double now, size_t rowsMax) const;
  nlohmann::ordered_json json(const decoder::Decoder& decoder, double now) const;

 private:
  struct Cell {
    std::string text;
    nlohmann::ordered_json value;
    bool operator==(const Cell&) const = default;
  };
  struct Row {
    std::vector<Cell> cells;  ///< scope fields first, as in the record
    double heard = 0;         ///< UTC seconds of the last record
  };
  struct Table {
    std::string title;
    std::vector<decoder::Field> fields;
    std::map<std::string, Row> rows;  ///< by the scope fields' octets
  };
  static std::optional<std::string> keyNames_p(const decoder::Decoder& decoder,
                                               const decoder::StreamKey& key, const Table& table,
                                               const Row& row);

  /// The tables of each stream, by template id.
  std::map<decoder::StreamKey, std::map<uint16_t, Table>> tables_;
  size_t rows_ = 0;     // of all tables
  size_t refused_ = 0;  // new rows for which there was no room
};

}  // namespace cli
