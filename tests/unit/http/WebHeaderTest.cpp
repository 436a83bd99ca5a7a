#include <gtest/gtest.h>

#include "FakeWebSocket.h"
#include "zuna_http/WebServer.h"

namespace {

TEST(WebResponse, HeadHoldsTheFieldsInOrder) {
  zuna_http::WebResponse response(200);
  response.addField("Connection", "close");
  response.addField("Content-Type", "text/plain; charset=\"utf-8\"");
  response.addField("Server", "Linux/6.1 UPnP/1.0 CHD/0.1");
  response.addField("Cache-control", "no-cache");
  response.addField("Content-Length", "12");
  chdtest::FakeStream stream;
  EXPECT_TRUE(response.send(&stream));
  EXPECT_EQ(stream.bytes,
            "HTTP/1.1 200 OK\r\n"
            "Connection: close\r\n"
            "Content-Type: text/plain; charset=\"utf-8\"\r\n"
            "Server: Linux/6.1 UPnP/1.0 CHD/0.1\r\n"
            "Cache-control: no-cache\r\n"
            "Content-Length: 12\r\n"
            "\r\n");
  EXPECT_EQ(response.getStatus(), 200);
}

TEST(WebResponse, BareNotFound) {
  zuna_http::WebResponse response(404);
  chdtest::FakeStream stream;
  EXPECT_TRUE(response.send(&stream));
  EXPECT_EQ(stream.bytes, "HTTP/1.1 404 Not Found\r\n\r\n");
  EXPECT_TRUE(response.getFields().empty());
}

TEST(WebResponse, FailedWriteIsReported) {
  zuna_http::WebResponse response(200);
  chdtest::FakeStream stream;
  stream.broken = true;
  EXPECT_FALSE(response.send(&stream));
  EXPECT_FALSE(response.send(nullptr));
}

TEST(WebServerMethod, NamesAreCaseSensitiveTokens) {
  EXPECT_EQ(zuna_http::WebServer::getMethod("GET"), zuna_http::WebServer::METHOD_GET);
  EXPECT_EQ(zuna_http::WebServer::getMethod("HEAD"), zuna_http::WebServer::METHOD_HEAD);
  EXPECT_EQ(zuna_http::WebServer::getMethod("POST"), zuna_http::WebServer::METHOD_POST);
  EXPECT_EQ(zuna_http::WebServer::getMethod("get"), zuna_http::WebServer::METHOD_UNKNOWN);
  EXPECT_EQ(zuna_http::WebServer::getMethod(""), zuna_http::WebServer::METHOD_UNKNOWN);
}

TEST(WebRequest, CarriesMethodAndPath) {
  zuna_http::WebRequest request("GET", "/var/log/messages");
  EXPECT_EQ(request.getMethod(), "GET");
  EXPECT_EQ(request.getPath(), "/var/log/messages");
}

}  // namespace
