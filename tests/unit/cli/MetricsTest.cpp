#include "cli/Metrics.h"

#include <gtest/gtest.h>

namespace cli {

// One octet that is no UTF-8, or a quote too many, would cost a whole scrape. The agent takes no
// such names, but whoever writes the segment could.
TEST(Metrics, WhateverANameHoldsIsOneLabel) {
  using namespace Tarn::Ipfix;
  Counters c;
  c.state = Counters::State::live;
  c.entries.emplace_back(CollectorStatisticsKey(
      "a\"\\\n\xff", "e", CollectorInfo::fromIpAndPort({platform::IpAddr(0x0a000001), 4739})));
  const std::string text = metricsText(c, {}, MetricsFormat::prometheus);
  EXPECT_NE(text.find(R"({tracker="a\"\\\\x0a\\xff",exporter="e",collector="10.0.0.1:4739"} 0)"),
            std::string::npos)
      << text;
}

}  // namespace cli
