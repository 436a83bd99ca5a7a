#include <gtest/gtest.h>

#include <string>

#include "zuna_http_host/PathNormalizer.h"

namespace {

using zuna_http::host::isBelow;
using zuna_http::host::normalizeRequestPath;

class EscapeAttempt : public ::testing::TestWithParam<std::string> {};

TEST_P(EscapeAttempt, IsRefused) {
  std::string out = "untouched";
  EXPECT_FALSE(normalizeRequestPath(GetParam(), out)) << GetParam() << " -> " << out;
  EXPECT_EQ(out, "untouched");
}

INSTANTIATE_TEST_SUITE_P(Paths, EscapeAttempt,
                         ::testing::Values("/var/log/../../etc/passwd", "/var/log/..", "/..", "..",
                                           "/var/log/%2e%2e/secret", "/var/log/%2E%2E/secret", "/var/log/.%2e/secret",
                                           "/var/log/%2e./secret", "/var/log/%2e%2e", "/var/log/%252e%252e/x/../y",
                                           "/var/log/..%2fsecret", "/var/log/%2e%2e%2fsecret",
                                           "/var/log/%2f..%2fsecret", "/var/log/..\\secret", "/var/log/%5c..%5csecret",
                                           "/var/log\\..\\secret", "/var/log/%00", "/var/log/messages%00.txt",
                                           "/var//log/messages", "//etc/passwd", "/var/log/%2f%2fsecret",
                                           "/var/log/./messages", "/var/log/%2e/messages", "var/log/messages", "",
                                           "/var/log/%", "/var/log/%zz", "/var/log/%2", "/var/log/\x01x",
                                           "/var/log/%0a", "/var/log/%7f"));

TEST(RequestPath, DecodesAndKeepsSafePaths) {
  std::string out;
  ASSERT_TRUE(normalizeRequestPath("/var/log/messages", out));
  EXPECT_EQ(out, "/var/log/messages");
  ASSERT_TRUE(normalizeRequestPath("/var/log/my%20file.log?x=1#frag", out));
  EXPECT_EQ(out, "/var/log/my file.log");
  ASSERT_TRUE(normalizeRequestPath("/var/log/100%25.log", out));
  EXPECT_EQ(out, "/var/log/100%.log");
  ASSERT_TRUE(normalizeRequestPath("/var/log/", out));
  EXPECT_EQ(out, "/var/log/");
  ASSERT_TRUE(normalizeRequestPath("/", out));
  EXPECT_EQ(out, "/");
  ASSERT_TRUE(normalizeRequestPath("/var/log/...", out));  // three dots name a file, not a parent
  EXPECT_EQ(out, "/var/log/...");
  ASSERT_TRUE(normalizeRequestPath("/var/log/%252e%252e", out));  // decoded once: a file named "%2e%2e"
  EXPECT_EQ(out, "/var/log/%2e%2e");
}

TEST(RequestPath, BelowComparesWholeSegments) {
  EXPECT_TRUE(isBelow("/var/log", "/var/log"));
  EXPECT_TRUE(isBelow("/var/log/messages", "/var/log"));
  EXPECT_TRUE(isBelow("/var/log/messages", "/var/log/"));
  EXPECT_FALSE(isBelow("/var/logs/messages", "/var/log"));
  EXPECT_FALSE(isBelow("/var/lo", "/var/log"));
  EXPECT_FALSE(isBelow("/etc/passwd", "/var/log"));
  EXPECT_TRUE(isBelow("/etc/passwd", ""));
  EXPECT_TRUE(isBelow("/etc/passwd", "/"));
}

}  // namespace
