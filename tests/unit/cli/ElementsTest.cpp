#include "cli/Elements.h"

#include <gtest/gtest.h>

#include "cli/ToolPlatform.h"

namespace cli {
namespace {

struct ElementsTest : testing::Test {
  ElementsTest() {
    platform::Platform::install(&host_);
    registry_ = Ipfix::elementIdCollFactory();
    registry_->doInitialize();
  }
  ~ElementsTest() override {
    registry_ = nullptr;
    platform::Platform::install(nullptr);
  }
  ToolPlatform host_;
  platform::Ptr<Ipfix::ElementIdColl> registry_;
};

// The registry and the decoder's own list were written apart: they must not contradict each other.
TEST_F(ElementsTest, RegistryAndIanaListAgree) {
  const auto lookup = elementLookup(registry_);
  size_t named = 0;
  for (const auto& [type, e] : registry_->elementIdColl()) {
    const auto id = static_cast<uint16_t>(type.value());
    const decoder::Element* found = lookup(e.enterpriseIe() ? 99991 : 0, id);
    ASSERT_NE(found, nullptr) << id;
    EXPECT_EQ(found->name, e.str());
    EXPECT_TRUE(decoder::typeAllows(found->type, e.len()))
        << e.str() << " has " << e.len() << " octets, " << decoder::typeName(found->type) << " "
        << decoder::typeLengths(found->type);
    const decoder::Element* iana = decoder::ianaElement(id);
    if (e.enterpriseIe() || !iana) continue;
    EXPECT_EQ(iana->name, e.str());
    EXPECT_EQ(iana->type, found->type);
    ++named;
  }
  EXPECT_EQ(named, 48U);  // all but the two that carry a number of the enterprise's range
}

}  // namespace
}  // namespace cli
