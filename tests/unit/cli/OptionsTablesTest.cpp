#include "cli/OptionsTables.h"

#include <gtest/gtest.h>

#include "Octets.h"

namespace cli {
namespace {

class OptionsTablesTest : public testing::Test {
 protected:
  /// True: the tables changed.
  bool heard(uint32_t sequence, std::string_view sets, double time = 100) {
    octets_ = decoder::message(sequence, sets);
    Datagram d;
    d.octets = octets_;
    d.time = time;
    d.source = {"10.0.0.1", 40001};
    const auto m = decoder_.decode(d.source.stringValue(), octets_);
    EXPECT_FALSE(m.error);
    return tables_.take(d, m);
  }
  std::string text(size_t rowsMax = 100) const { return tables_.text(decoder_, 110, rowsMax); }

  decoder::Octets octets_;
  decoder::Decoder decoder_{decoder::testElement};
  OptionsTables tables_;
};

constexpr auto interfaceTemplate = "0003 0012 ff01 0002 0001 000a 0004 0052 ffff";

TEST_F(OptionsTablesTest, LaterRecordsOfAScopeTakeTheEarliersPlace) {
  EXPECT_FALSE(heard(0, interfaceTemplate));
  EXPECT_TRUE(heard(0, "ff01 0016 00000001 04 65746830 00000002 04 65746831"));
  EXPECT_FALSE(heard(2, "ff01 000d 00000001 04 65746830", 108)) << "the same again";
  EXPECT_TRUE(heard(3, "ff01 000d 00000002 04 65746839"));
  EXPECT_EQ(text(),
            "10.0.0.1:40001  domain 7\n"
            "  interfaces (2)\n"
            "    ingressInterface  interfaceName  told\n"
            "                   1  \"eth0\"         2 s ago\n"
            "                   2  \"eth9\"         10 s ago\n");
  EXPECT_NE(text(1).find("and 1 more"), std::string::npos);
  const auto json = tables_.json(decoder_, 110);
  const auto& table = json["streams"][0]["tables"][0];
  EXPECT_EQ(table["templateId"], 65281);
  EXPECT_EQ(table["rows"][1]["interfaceName"], "eth9");
  EXPECT_EQ(table["rows"][1]["ingressInterface"], 2);
  EXPECT_EQ(table["rows"][0]["age"], 2.0);

  // Another layout under the same id: what was told in the old one means nothing any more.
  heard(4, "0003 0012 ff01 0002 0001 00ea 0004 00ec ffff");
  EXPECT_TRUE(heard(4, "ff01 000c 0000000a 03 726564"));
  EXPECT_NE(text().find("VRFs (1)"), std::string::npos) << text();
  EXPECT_EQ(text().find("eth0"), std::string::npos);
}

TEST_F(OptionsTablesTest, FlowKeysAreShownByTheNamesOfTheirFields) {
  heard(0, "0002 0014 0100 0003 0008 0004 000c 0004 0001 0008");
  heard(0, "0003 0012 ff02 0002 0001 0091 0002 00ad 0008");
  EXPECT_TRUE(heard(0, "ff02 000e 0100 0000000000000003"));
  EXPECT_NE(text().find("sourceIPv4Address, destinationIPv4Address"), std::string::npos) << text();
  EXPECT_EQ(text().find("octetDeltaCount"), std::string::npos);
  EXPECT_EQ(tables_.json(decoder_, 110)["streams"][0]["tables"][0]["rows"][0]["keys"],
            "sourceIPv4Address, destinationIPv4Address");
}

}  // namespace
}  // namespace cli
