#include "FakeWebServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "FakeProvider.h"
#include "FakeWebSocket.h"
#include "tolvane/File.h"

namespace chdtest {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

std::string get(FakeWebServer& server, Tolvane::ServerSocket* socket, const std::string& path,
                const std::string& method = "GET") {
  FakeWebSocket connection;
  zuna_http::WebRequest request(method, path);
  return server.serve(socket, &connection, &request) ? connection.bytes() : "unserved";
}

TEST(FakeWebServer, HandsEachRequestToTheProviderOfItsSocketMethodAndPath) {
  FakeWebServer server;
  Tolvane::ServerSocket first;
  Tolvane::ServerSocket second;
  FakeProvider any("any");
  FakeProvider logs("logs");
  FakeProvider head("head");
  ASSERT_TRUE(server.registerProvider(&any, &first, zuna_http::WebServer::METHOD_GET, ""));
  ASSERT_TRUE(server.registerProvider(&logs, &first, zuna_http::WebServer::METHOD_GET, "/var/log"));
  ASSERT_TRUE(server.registerProvider(&head, &second, zuna_http::WebServer::METHOD_HEAD, "/"));
  EXPECT_EQ("any", get(server, &first, "/description.xml"));
  EXPECT_EQ("logs", get(server, &first, "/var/log/messages"));
  EXPECT_EQ("any", get(server, &first, "/var/logs"));
  EXPECT_EQ("unserved", get(server, &second, "/var/log/messages"));
  EXPECT_EQ("head", get(server, &second, "/x", "HEAD"));
  EXPECT_EQ("unserved", get(server, &first, "/x", "POST"));
  EXPECT_THAT(logs.paths(), ElementsAre("/var/log/messages"));
  EXPECT_EQ(&second, server.registeredSocket());
}

TEST(FakeWebServer, UnregisteredSocketsAndProvidersGetNothing) {
  FakeWebServer server;
  Tolvane::ServerSocket first;
  Tolvane::ServerSocket second;
  FakeProvider one("one");
  FakeProvider two("two");
  server.registerProvider(&one, &first, zuna_http::WebServer::METHOD_GET, "");
  server.registerProvider(&two, &second, zuna_http::WebServer::METHOD_GET, "");
  server.unregisterSocket(&first);
  server.unregisterProvider(&two);
  EXPECT_EQ("unserved", get(server, &first, "/a"));
  EXPECT_EQ("unserved", get(server, &second, "/a"));
  EXPECT_THAT(server.journal().calls(),
              ElementsAre(Pair("registerProvider 1 []", &one), Pair("registerProvider 1 []", &two),
                          Pair("unregisterSocket", &first), Pair("unregisterProvider", &two)));
}

TEST(FakeWebServer, RefusesARegistrationWithoutProviderOrSocket) {
  FakeWebServer server;
  Tolvane::ServerSocket socket;
  FakeProvider provider("p");
  EXPECT_FALSE(server.registerProvider(nullptr, &socket, zuna_http::WebServer::METHOD_GET, ""));
  EXPECT_FALSE(server.registerProvider(&provider, nullptr, zuna_http::WebServer::METHOD_GET, ""));
  EXPECT_EQ(nullptr, server.registeredSocket());
  EXPECT_EQ("unserved", get(server, &socket, "/a"));
}

}  // namespace
}  // namespace chdtest
