#include <gtest/gtest.h>

#include <cstdint>

#include "zuna_util/StringUtil.h"

namespace {

using zuna_util::fromString;

TEST(StringUtilTest, AcceptsPlainDecimalNumbers) {
  unsigned value = 7;
  EXPECT_TRUE(fromString(value, "0"));
  EXPECT_EQ(value, 0u);
  EXPECT_TRUE(fromString(value, "900"));
  EXPECT_EQ(value, 900u);
  EXPECT_TRUE(fromString(value, "007"));
  EXPECT_EQ(value, 7u);
  EXPECT_TRUE(fromString(value, "4294967295"));
  EXPECT_EQ(value, 4294967295u);
}

TEST(StringUtilTest, RejectsAnythingElseAndLeavesTheValue) {
  const char* rejected[] = {"", " 1", "1 ", "+1", "-1", "-0", "1a", "0x10", "1.0", "1e3", "4294967296", "99999999999"};
  for (const char* text : rejected) {
    unsigned value = 42;
    EXPECT_FALSE(fromString(value, text)) << text;
    EXPECT_EQ(value, 42u) << text;
  }
}

TEST(StringUtilTest, Unsigned64BitLimits) {
  uint64_t value = 3;
  EXPECT_TRUE(fromString(value, "18446744073709551615"));
  EXPECT_EQ(value, UINT64_MAX);
  EXPECT_TRUE(fromString(value, "4294967296"));
  EXPECT_EQ(value, 4294967296ull);
  value = 3;
  EXPECT_FALSE(fromString(value, "18446744073709551616"));
  EXPECT_FALSE(fromString(value, "100000000000000000000"));
  EXPECT_FALSE(fromString(value, "-5"));
  EXPECT_EQ(value, 3u);
}

TEST(StringUtilTest, EmbeddedNulIsNotADigit) {
  unsigned value = 1;
  EXPECT_FALSE(fromString(value, std::string("12\0"
                                             "3",
                                             4)));
  EXPECT_EQ(value, 1u);
}

}  // namespace
