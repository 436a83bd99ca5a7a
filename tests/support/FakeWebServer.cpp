#include "FakeWebServer.h"

namespace chdtest {

FakeWebServer::FakeWebServer(CallJournal* journal) : mRegistry(journal) {}

bool FakeWebServer::registerProvider(zuna_http::WebServiceProvider* provider, Tolvane::ServerSocket* socket,
                                     Method method, const std::string& path) {
  mRegistry.journal().record("registerProvider " + std::to_string(method) + " [" + path + "]", provider);
  if (provider == nullptr || socket == nullptr) {
    return false;
  }
  mRegistry.add({socket, method, path, provider});
  const std::lock_guard<std::mutex> lock(mMutex);
  mRegisteredSocket = socket;
  return true;
}

void FakeWebServer::unregisterSocket(Tolvane::ServerSocket* socket) {
  mRegistry.journal().record("unregisterSocket", socket);
  mRegistry.removeListener(socket);
}

void FakeWebServer::unregisterProvider(zuna_http::WebServiceProvider* provider) {
  mRegistry.journal().record("unregisterProvider", provider);
  mRegistry.removeProvider(provider);
}

bool FakeWebServer::serve(Tolvane::ServerSocket* socket, zuna_http::WebSocket* connection,
                          zuna_http::WebRequest* request) {
  zuna_http::WebServiceProvider* provider = mRegistry.find(socket, getMethod(request->getMethod()), request->getPath());
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
