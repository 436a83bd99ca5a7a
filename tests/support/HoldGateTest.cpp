#include "HoldGate.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace chdtest {
namespace {

TEST(HoldGate, HoldsUntilReleased) {
  HoldGate gate;
  auto held = std::async(std::launch::async, [&gate] { gate.hold(false); });
  ASSERT_TRUE(gate.waitUntilEntered());
  EXPECT_EQ(std::future_status::timeout, held.wait_for(std::chrono::milliseconds(50)));
  gate.release();
  EXPECT_EQ(std::future_status::ready, held.wait_for(std::chrono::seconds(10)));
}

TEST(HoldGate, RearmedGateHoldsTheNextCallerAgain) {
  HoldGate gate(std::chrono::seconds(1));
  gate.release();
  gate.hold(true);
  const auto started = std::chrono::steady_clock::now();
  gate.hold(false);
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(900));
}

TEST(HoldGate, TheFirstCallerMarksItEntered) {
  HoldGate gate;
  gate.release();
  EXPECT_FALSE(gate.entered.load());
  gate.hold(false);
  EXPECT_TRUE(gate.waitUntilEntered());
}

}  // namespace
}  // namespace chdtest
