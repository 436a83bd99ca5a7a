#include "zuna_http_host/HostWebServer.h"

#include <libsoup/soup.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "tolvane/File.h"
#include "tolvane/Logging.h"
#include "zuna_http_host/MainLoop.h"
#include "zuna_http_host/RequestPool.h"
#include "zuna_http_host/SoupAcceptor.h"
#include "zuna_http_host/SoupRouting.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_http::host {

namespace {

std::atomic<WebServer*> gTestServer{nullptr};

// The private listeners of the web server, each a libsoup server on the fd of
// a ServerSocket, run on the stack's GLib thread.
class HostWebServer : public WebServer {
 public:
  bool registerProvider(WebServiceProvider* provider, Tolvane::ServerSocket* socket, Method method,
                        const std::string& path) override;
  void unregisterSocket(Tolvane::ServerSocket* socket) override;
  void unregisterProvider(WebServiceProvider* provider) override;

 private:
  struct Listener {
    SoupServer* server = nullptr;
    std::unique_ptr<SoupAcceptor> acceptor;
    std::map<std::string, WebServiceProvider*> routes;  // path -> provider
  };

  static bool listen(Listener& listener, int fd);

  // Guards the loop pointer; the listeners belong to the GLib thread.
  std::mutex mMutex;
  std::shared_ptr<MainLoop> mLoop;
  std::map<Tolvane::ServerSocket*, Listener> mListeners;
};

bool HostWebServer::listen(Listener& listener, int fd) {
  // Paths reach the handlers still escaped and are decoded once, by the
  // checks that keep requests inside the root.
  listener.server = soup_server_new("raw-paths", TRUE, nullptr);
  listener.acceptor = SoupAcceptor::forSocket(listener.server, fd);
  if (!listener.acceptor) {
    g_clear_object(&listener.server);
    return false;
  }
  closeConnectionsAfterEachResponse(listener.server);
  return true;
}

bool HostWebServer::registerProvider(WebServiceProvider* provider, Tolvane::ServerSocket* socket, Method method,
                                     const std::string& path) {
  if (provider == nullptr || socket == nullptr || socket->getHandle() < 0 || method == METHOD_UNKNOWN) {
    return false;
  }
  std::shared_ptr<MainLoop> loop;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mLoop) {
      mLoop = MainLoop::acquire();
    }
    loop = mLoop;
  }
  bool registered = false;
  loop->invokeAndWait([&] {
    Listener& listener = mListeners[socket];
    if (listener.server == nullptr && !listen(listener, socket->getHandle())) {
      TL_LOG(0, "Cannot serve listening socket [%d]", socket->getHandle());
      mListeners.erase(socket);
      return;
    }
    listener.routes[path] = provider;
    addProviderRoute(listener.server, new ProviderRoute{provider, method, path, false});
    registered = true;
  });
  return registered;
}

void HostWebServer::unregisterSocket(Tolvane::ServerSocket* socket) {
  std::shared_ptr<MainLoop> loop;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    loop = mLoop;
  }
  if (!loop) {
    return;
  }
  bool idle = false;
  loop->invokeAndWait([&] {
    auto found = mListeners.find(socket);
    if (found != mListeners.end()) {
      found->second.acceptor.reset();
      soup_server_disconnect(found->second.server);
      g_object_unref(found->second.server);
      mListeners.erase(found);
    }
    idle = mListeners.empty();
  });
  if (idle) {
    // Without listeners the web server no longer keeps the GLib thread going.
    std::lock_guard<std::mutex> lock(mMutex);
    if (mLoop == loop) {
      mLoop.reset();
    }
  }
}

void HostWebServer::unregisterProvider(WebServiceProvider* provider) {
  std::shared_ptr<MainLoop> loop;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    loop = mLoop;
  }
  if (loop) {
    loop->invokeAndWait([&] {
      for (auto& entry : mListeners) {
        Listener& listener = entry.second;
        for (auto route = listener.routes.begin(); route != listener.routes.end();) {
          if (route->second == provider) {
            removeProviderRoute(listener.server, route->first);
            route = listener.routes.erase(route);
          } else {
            ++route;
          }
        }
      }
    });
  }
  RequestPool::instance().drain(provider);
}

}  // namespace

}  // namespace zuna_http::host

namespace zuna_http {

WebServer* WebServer::getSingleton() {
  if (WebServer* test = host::gTestServer.load()) {
    return test;
  }
  // Never destroyed, like the controller: listeners may outlive main().
  static WebServer* instance = new host::HostWebServer();
  return instance;
}

void host::setWebServerForTest(WebServer* server) { gTestServer.store(server); }

}  // namespace zuna_http
