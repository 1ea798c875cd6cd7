#include "cli/MessagePrinter.h"

#include <gtest/gtest.h>

#include "tests/unit/cli/Octets.h"

namespace cli {
namespace {

using decoder::Octets;
using decoder::put16;
using decoder::rich;

struct PrinterTest : testing::Test {
  Datagram datagram(const Octets& o) {
    octets_ = o;
    return {octets_, 1732247552.25, {"10.0.0.9", 40001}, {"2001:db8::1", 4739}, uint8_t{185}};
  }
  std::string text(const Octets& o) {
    const Datagram d = datagram(o);
    return messageText(d, decoder_.decode(d.source.stringValue(), o), options_);
  }
  nlohmann::ordered_json json(const Octets& o) {
    const Datagram d = datagram(o);
    return messageJson(d, decoder_.decode(d.source.stringValue(), o), options_.quietData);
  }
  Octets octets_;
  decoder::Decoder decoder_{decoder::testElement};
  PrintOptions options_;
};

TEST_F(PrinterTest, ShowsARichMessageToPeople) {
  EXPECT_EQ(
      text(rich),
      R"(2024-11-22 03:52:32.250Z  10.0.0.9:40001 > [2001:db8::1]:4739  domain 7  seq 5  exported 2024-11-22 03:52:32Z  127 octets  DSCP 46 (EF), ECN 1
  template 256, new: 4 fields, records of at least 11 octets
       element  name                 octets
             8  sourceIPv4Address         4
             1  octetDeltaCount           4
            82  interfaceName      variable
    99991/1001  flowTrackingType          2
  template 257, new: 1 field, records of 4 octets
    element  name              octets
        150  flowStartSeconds       4
  options template 65281, new: 2 fields, records of at least 5 octets
    element  name                octets
         10  ingressInterface         4  scope
         82  interfaceName     variable
  data 256, 2 records, 3 octets of padding
    sourceIPv4Address  octetDeltaCount  interfaceName  flowTrackingType
    10.0.0.1                       100  "eth0"                        2
    10.0.0.2                4294967295  ""                          259
  data 65281 (options), 1 record
    ingressInterface  interfaceName
                   3  "lo0"
  data 257, 1 record
    flowStartSeconds
    2024-11-22T03:52:32Z
)");
}

TEST_F(PrinterTest, WideRecordsBecomeListsAndLongValuesAreCut) {
  options_.width = 50;
  (void)text(rich);
  std::string shown = text(decoder::message(9,
                                            "0100 001f 0a000001 00000064 10 "
                                            "30313233343536373839616263646566 0002"));
  EXPECT_NE(shown.find("  data 256, 1 record\n"
                       "    #1  sourceIPv4Address 10.0.0.1\n"
                       "        octetDeltaCount 100\n"
                       "        interfaceName \"0123456789abcdef\"\n"
                       "        flowTrackingType 2\n"),
            std::string::npos)
      << shown;
  std::string eighty;
  for (int i = 0; i < 80; ++i) eighty += "78";
  shown = text(decoder::message(9, "ff01 0059 00000001 50" + eighty));
  EXPECT_NE(shown.find("\"" + std::string(63, 'x') + "... (80 octets)"), std::string::npos)
      << shown;
}

TEST_F(PrinterTest, FaultsAreLoud) {
  (void)text(rich);
  Octets gap = decoder::message(11, "0101 0008 00000000");
  EXPECT_NE(
      text(gap).find("\n  !! SEQUENCE ERROR: sequence 11, expected 9: 2 data records missing\n"),
      std::string::npos);
  put16(gap, 18, 3);
  EXPECT_NE(text(gap).find("\n  !! MALFORMED at octet 18: set length 3; allowed are 4 to 8"),
            std::string::npos);
  EXPECT_NE(text(decoder::message(12, "0111 0008 00000000"))
                .find("\n  !  data 273, 4 octets: no template of this id heard; sequence not "
                      "checkable until the next message\n"),
            std::string::npos);
  EXPECT_FALSE(flawless(decoder_));
  const Summary summary{3.5, 2, decoder_};
  const std::string said = summaryText(summary);
  EXPECT_NE(said.find("10.0.0.9:40001 domain 7, message 2: sequence 11, expected 9"),
            std::string::npos)
      << said;
  EXPECT_NE(said.find("2 datagrams lost in this host's receive buffers"), std::string::npos);
}

TEST_F(PrinterTest, JsonHasStableKeys) {
  const auto j = json(rich);
  EXPECT_EQ(
      j.dump(),
      R"({"type":"message","time":1732247552.25,"sourceAddress":"10.0.0.9",)"
      R"("sourcePort":40001,"destinationAddress":"2001:db8::1","destinationPort":4739,)"
      R"("tos":185,"dscp":46,"octets":127,"version":10,"length":127,)"
      R"("exportTime":1732247552,"sequence":5,"domain":7,"sequenceState":"first",)"
      R"("sequenceExpected":null,"recordCount":4,"sets":[)"
      R"({"id":2,"offset":16,"length":36,"kind":"templates","templates":[)"
      R"({"id":256,"change":"new","scopeFieldCount":0,"fields":[)"
      R"({"name":"sourceIPv4Address","id":8,"enterprise":0,"length":4,"scope":false},)"
      R"({"name":"octetDeltaCount","id":1,"enterprise":0,"length":4,"scope":false},)"
      R"({"name":"interfaceName","id":82,"enterprise":0,"length":65535,"scope":false},)"
      R"({"name":"flowTrackingType","id":1001,"enterprise":99991,"length":2,"scope":false}]},)"
      R"({"id":257,"change":"new","scopeFieldCount":0,"fields":[)"
      R"({"name":"flowStartSeconds","id":150,"enterprise":0,"length":4,"scope":false}]}]},)"
      R"({"id":3,"offset":52,"length":20,"kind":"optionsTemplates","templates":[)"
      R"({"id":65281,"change":"new","scopeFieldCount":1,"fields":[)"
      R"({"name":"ingressInterface","id":10,"enterprise":0,"length":4,"scope":true},)"
      R"({"name":"interfaceName","id":82,"enterprise":0,"length":65535,"scope":false}]}]},)"
      R"({"id":256,"offset":72,"length":33,"kind":"data","known":true,"options":false,)"
      R"("recordCount":2,"records":[{"sourceIPv4Address":"10.0.0.1","octetDeltaCount":100,)"
      R"("interfaceName":"eth0","flowTrackingType":2},{"sourceIPv4Address":"10.0.0.2",)"
      R"("octetDeltaCount":4294967295,"interfaceName":"","flowTrackingType":259}]},)"
      R"({"id":65281,"offset":105,"length":14,"kind":"data","known":true,"options":true,)"
      R"("recordCount":1,"records":[{"ingressInterface":3,"interfaceName":"lo0"}]},)"
      R"({"id":257,"offset":119,"length":8,"kind":"data","known":true,"options":false,)"
      R"("recordCount":1,"records":[{"flowStartSeconds":"2024-11-22T03:52:32Z"}]}],)"
      R"("error":null,"warnings":[]})");

  // The same element twice has two keys; octets that are no UTF-8 do not break the line.
  (void)json(decoder::message(9, "0002 0010 0104 0002 0052 ffff 0052 ffff"));
  const auto twice = json(decoder::message(9, "0104 0008 01 ff 01 62"));
  EXPECT_EQ(jsonLine(twice["sets"][0]["records"][0]),
            "{\"interfaceName\":\"\xef\xbf\xbd\",\"interfaceName#2\":\"b\"}\n");
  const auto noIpfix = json(decoder::hex("0009"));
  EXPECT_FALSE(noIpfix.contains("domain"));
  EXPECT_EQ(noIpfix["error"]["offset"], 0);
}

}  // namespace
}  // namespace cli
