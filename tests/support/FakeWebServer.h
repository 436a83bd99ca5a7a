// A web server that listens nowhere: it journals registrations and hands a
// request to the provider registered for its socket, method and path, as the
// real server's workers do.
#pragma once

#include <mutex>
#include <string>

#include "ProviderRegistry.h"
#include "zuna_http/WebServer.h"

namespace chdtest {

class FakeWebServer : public zuna_http::WebServer {
 public:
  // Registrations go to the given journal (shared with other doubles), or to the server's own.
  explicit FakeWebServer(CallJournal* journal = nullptr);
  ~FakeWebServer() override = default;
  FakeWebServer(const FakeWebServer&) = delete;
  FakeWebServer& operator=(const FakeWebServer&) = delete;

  // Journals "registerProvider <method number> [<path>]"; refuses a null provider or socket.
  bool registerProvider(zuna_http::WebServiceProvider* provider, Tolvane::ServerSocket* socket, Method method,
                        const std::string& path) override;
  // Journal: "unregisterSocket", "unregisterProvider".
  void unregisterSocket(Tolvane::ServerSocket* socket) override;
  void unregisterProvider(zuna_http::WebServiceProvider* provider) override;

  // Runs the request in the provider that serves it on that socket; false when none does.
  bool serve(Tolvane::ServerSocket* socket, zuna_http::WebSocket* connection, zuna_http::WebRequest* request);
  // The socket of the last registration that was accepted; null before any.
  Tolvane::ServerSocket* registeredSocket() const;
  CallJournal& journal() { return mRegistry.journal(); }

 private:
  ProviderRegistry mRegistry;
  mutable std::mutex mMutex;
  Tolvane::ServerSocket* mRegisteredSocket = nullptr;
};

}  // namespace chdtest
