// Web providers for the integration tests.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "HoldGate.h"
#include "zuna_http/WebServer.h"

namespace upnp_it {

constexpr size_t kBigFileSize = 1 << 20;

inline char patternByte(size_t index) { return static_cast<char>('a' + index % 26); }

// Streams a large body for ".../big", a short one for anything else.
class FileProvider : public zuna_http::WebServiceProvider {
 public:
  void handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* request) override {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mPaths.push_back(request->getPath());
    }
    const bool big =
        request->getPath().size() >= 4 && request->getPath().compare(request->getPath().size() - 4, 4, "/big") == 0;
    const size_t size = big ? kBigFileSize : request->getPath().size();
    zuna_http::WebResponse response(200);
    response.addField("Connection", "close");
    response.addField("Content-Type", "text/plain; charset=\"utf-8\"");
    response.addField("Content-Length", std::to_string(size));
    socket->send(response);
    if (!big) {
      socket->write(request->getPath().data(), size);
      return;
    }
    std::string chunk(64 * 1024, ' ');
    for (size_t sent = 0; sent < size; sent += chunk.size()) {
      for (size_t i = 0; i < chunk.size(); ++i) {
        chunk[i] = patternByte(sent + i);
      }
      if (socket->write(chunk.data(), chunk.size()) < 0) {
        return;
      }
    }
  }

  std::vector<std::string> paths() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mPaths;
  }

 private:
  std::mutex mMutex;
  std::vector<std::string> mPaths;
};

// Holds every request until released (at most 10 s).
class BlockingProvider : public zuna_http::WebServiceProvider, public chdtest::HoldGate {
 public:
  void handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* /*request*/) override {
    hold(false);
    zuna_http::WebResponse response(204);
    response.addField("Connection", "close");
    socket->send(response);
    finished = true;
  }
};

}  // namespace upnp_it
