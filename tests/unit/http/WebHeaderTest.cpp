#include <gtest/gtest.h>

#include "zuna_http/WebServer.h"

namespace {

class RecordingStream : public zuna_http::ReaderWriter {
 public:
  int64_t write(const void* data, size_t length) override {
    bytes.append(static_cast<const char*>(data), length);
    return static_cast<int64_t>(length);
  }
  int64_t read(void* /*buffer*/, size_t /*length*/) override { return 0; }
  std::string bytes;
};

class BrokenStream : public zuna_http::ReaderWriter {
 public:
  int64_t write(const void* /*data*/, size_t /*length*/) override { return -1; }
  int64_t read(void* /*buffer*/, size_t /*length*/) override { return -1; }
};

TEST(WebResponse, HeadHoldsTheFieldsInOrder) {
  zuna_http::WebResponse response(200);
  response.addField("Connection", "close");
  response.addField("Content-Type", "text/plain; charset=\"utf-8\"");
  response.addField("Server", "Linux/6.1 UPnP/1.0 CHD/0.1");
  response.addField("Cache-control", "no-cache");
  response.addField("Content-Length", "12");
  RecordingStream stream;
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
  RecordingStream stream;
  EXPECT_TRUE(response.send(&stream));
  EXPECT_EQ(stream.bytes, "HTTP/1.1 404 Not Found\r\n\r\n");
  EXPECT_TRUE(response.getFields().empty());
}

TEST(WebResponse, FailedWriteIsReported) {
  zuna_http::WebResponse response(200);
  BrokenStream stream;
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
