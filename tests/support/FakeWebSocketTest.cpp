#include "FakeWebSocket.h"

#include <gtest/gtest.h>

namespace chdtest {
namespace {

TEST(FakeWebSocket, HeadAndBodyReachThePeerInOrder) {
  FakeWebSocket socket;
  zuna_http::WebResponse head(200);
  head.addField("Content-Length", "4");
  EXPECT_TRUE(socket.send(head));
  EXPECT_EQ(4, socket.write("body", 4));
  socket.close();
  EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody", socket.bytes());
  EXPECT_EQ(1, socket.sendCalls);
  EXPECT_EQ(1, socket.writeCalls);
  EXPECT_EQ(1, socket.closeCalls);
  EXPECT_EQ(&socket.stream, socket.getReaderWriter());
}

TEST(FakeWebSocket, FailedBodyWritesLeaveTheHeadAlone) {
  FakeWebSocket socket;
  socket.failWrites = true;
  EXPECT_TRUE(socket.send(zuna_http::WebResponse(404)));
  EXPECT_EQ(-1, socket.write("body", 4));
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\n\r\n", socket.bytes());
}

TEST(FakeStream, PeerThatGoesAwayTakesOnlyUpToItsLimit) {
  FakeStream stream;
  stream.acceptLimit = 6;
  EXPECT_EQ(4, stream.write("abcd", 4));
  EXPECT_EQ(2, stream.write("efgh", 4));
  EXPECT_EQ(0, stream.write("ijkl", 4));
  EXPECT_EQ("abcdef", stream.bytes);
}

TEST(FakeStream, ReadsGiveTheInputThenItsEnd) {
  FakeStream stream;
  stream.input = "hello";
  char buffer[4] = {};
  EXPECT_EQ(4, stream.read(buffer, sizeof(buffer)));
  EXPECT_EQ("hell", std::string(buffer, 4));
  EXPECT_EQ(1, stream.read(buffer, sizeof(buffer)));
  EXPECT_EQ('o', buffer[0]);
  EXPECT_EQ(0, stream.read(buffer, sizeof(buffer)));
}

TEST(FakeStream, BrokenStreamFailsBothWays) {
  FakeStream stream;
  stream.input = "x";
  stream.broken = true;
  char buffer[1] = {};
  EXPECT_EQ(-1, stream.write("a", 1));
  EXPECT_EQ(-1, stream.read(buffer, 1));
  EXPECT_TRUE(stream.bytes.empty());
}

}  // namespace
}  // namespace chdtest
