// A web provider that answers every request with its own body and remembers
// the paths it was asked for; requests may come from several threads at once.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "zuna_http/WebServer.h"

namespace chdtest {

class FakeProvider : public zuna_http::WebServiceProvider {
 public:
  explicit FakeProvider(std::string body = "") : mBody(std::move(body)) {}
  // Writes the body (a provider writes the head itself; this one has none) and closes the connection.
  void handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* request) override;
  std::vector<std::string> paths() const;

 private:
  const std::string mBody;
  mutable std::mutex mMutex;
  std::vector<std::string> mPaths;
};

}  // namespace chdtest
