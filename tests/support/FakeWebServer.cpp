#include "FakeWebServer.h"

namespace chdtest {

FakeWebServer::FakeWebServer(CallJournal* journal) : mJournal(journal != nullptr ? journal : &mOwnJournal) {}

bool FakeWebServer::registerProvider(zuna_http::WebServiceProvider* provider, Tolvane::ServerSocket* socket,
                                     Method method, const std::string& path) {
  mJournal->record("registerProvider " + std::to_string(method) + " [" + path + "]", provider);
  if (provider == nullptr || socket == nullptr) {
    return false;
  }
  mRoutes.add({socket, method, path, provider});
  const std::lock_guard<std::mutex> lock(mMutex);
  mRegisteredSocket = socket;
  return true;
}

void FakeWebServer::unregisterSocket(Tolvane::ServerSocket* socket) {
  mJournal->record("unregisterSocket", socket);
  mRoutes.removeListener(socket);
}

void FakeWebServer::unregisterProvider(zuna_http::WebServiceProvider* provider) {
  mJournal->record("unregisterProvider", provider);
  mRoutes.removeProvider(provider);
}

bool FakeWebServer::serve(Tolvane::ServerSocket* socket, zuna_http::WebSocket* connection,
                          zuna_http::WebRequest* request) {
  zuna_http::WebServiceProvider* provider = mRoutes.find(socket, getMethod(request->getMethod()), request->getPath());
  if (provider == nullptr) {
    return false;
  }
  provider->handleRequest(connection, request);
  return true;
}

Tolvane::ServerSocket* FakeWebServer::registeredSocket() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mRegisteredSocket;
}

}  // namespace chdtest
