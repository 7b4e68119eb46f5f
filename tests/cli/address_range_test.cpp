#include "address_range.h"

#include <gtest/gtest.h>

namespace vesta_ctrl {
namespace {

TEST(AddressRange, ReadsTheThreeForms) {
  struct Case {
    const char* text;
    std::uint32_t start, end, mask;
  };
  for (const Case& c : {
           Case{"10.1.0.0-10.1.0.255", 0x0A010000, 0x0A0100FF, 0xFFFFFF00},
           Case{"10.1.0.7-10.1.3.1", 0x0A010007, 0x0A010301, 0xFFFFFC00},
           Case{"10.1.0.7-10.1.0.7", 0x0A010007, 0x0A010007, 0xFFFFFFFF},
           Case{"10.1.0.77/24", 0x0A010000, 0x0A0100FF, 0xFFFFFF00},
           Case{"192.168.40.0/31", 0xC0A82800, 0xC0A82801, 0xFFFFFFFE},
           Case{"0.0.0.0/0", 0, 0xFFFFFFFF, 0},
           Case{"255.255.255.255/32", 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF},
           Case{"10.1.0.7", 0x0A010007, 0x0A010007, 0xFFFFFFFF},
       }) {
    const auto range = ParseAddressRange(c.text);
    ASSERT_TRUE(range.has_value()) << c.text;
    EXPECT_EQ(range->start, c.start) << c.text;
    EXPECT_EQ(range->end, c.end) << c.text;
    EXPECT_EQ(range->subnet_mask, c.mask) << c.text;
  }
}

TEST(AddressRange, RefusesWhatIsNotARange) {
  for (const char* text :
       {"", "10.1.0", "10.1.0.256", "10.1.0.1.", "10.1.0.1/33", "10.1.0.1/", "10.1.0.01",
        "10.1.0.9-10.1.0.1", "10.1.0.1-", "-10.1.0.1", " 10.1.0.1", "10.1.0.1/24x", "a.b.c.d"}) {
    EXPECT_FALSE(ParseAddressRange(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace vesta_ctrl
