// The web provider registrations of a controller or web server double: each
// call is journaled, and a request finds its provider the way a web server
// does: of the prefixes the path lies below, the longest wins; an empty prefix
// takes every path.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "CallJournal.h"
#include "zuna_http/WebServer.h"

namespace chdtest {

class ProviderRegistry {
 public:
  // Calls go to the given journal (shared with other doubles), or to the registry's own.
  explicit ProviderRegistry(CallJournal* journal) : mJournal(journal != nullptr ? journal : &mOwnJournal) {}
  ProviderRegistry(const ProviderRegistry&) = delete;
  ProviderRegistry& operator=(const ProviderRegistry&) = delete;

  struct Route {
    const void* listener;  // the listening socket, or null for the stack's own server
    zuna_http::WebServer::Method method;
    std::string path;
    zuna_http::WebServiceProvider* provider;
  };

  void add(const Route& route);
  void removeProvider(const zuna_http::WebServiceProvider* provider);
  void removeListener(const void* listener);
  // Null when no route takes the request.
  zuna_http::WebServiceProvider* find(const void* listener, zuna_http::WebServer::Method method,
                                      const std::string& path) const;
  CallJournal& journal() { return *mJournal; }

 private:
  static bool isBelow(const std::string& path, const std::string& prefix);

  CallJournal mOwnJournal;
  CallJournal* const mJournal;
  mutable std::mutex mMutex;
  std::vector<Route> mRoutes;
};

}  // namespace chdtest
