#include "FakeProvider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "FakeWebSocket.h"

namespace chdtest {
namespace {

void request(FakeProvider& provider, FakeWebSocket& socket, const std::string& path) {
  zuna_http::WebRequest get("GET", path);
  provider.handleRequest(&socket, &get);
}

TEST(FakeProvider, AnswersWithItsBodyAndClosesTheConnection) {
  FakeProvider provider("hello");
  FakeWebSocket socket;
  request(provider, socket, "/a");
  EXPECT_EQ("hello", socket.bytes());
  EXPECT_EQ(1, socket.closeCalls);
  EXPECT_THAT(provider.paths(), ::testing::ElementsAre("/a"));
}

TEST(FakeProvider, RemembersRequestsFromSeveralThreads) {
  FakeProvider provider;
  std::thread other([&provider] {
    for (int i = 0; i < 50; ++i) {
      FakeWebSocket socket;
      request(provider, socket, "/other");
    }
  });
  for (int i = 0; i < 50; ++i) {
    FakeWebSocket socket;
    request(provider, socket, "/main");
  }
  other.join();
  EXPECT_EQ(100u, provider.paths().size());
}

}  // namespace
}  // namespace chdtest
