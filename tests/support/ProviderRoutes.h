// Web providers registered for path prefixes, found for a request the way a
// web server does: of the prefixes the path lies below, the longest wins; an
// empty prefix takes every path.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "zuna_http/WebServer.h"

namespace chdtest {

class ProviderRoutes {
 public:
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

 private:
  static bool isBelow(const std::string& path, const std::string& prefix);

  mutable std::mutex mMutex;
  std::vector<Route> mRoutes;
};

}  // namespace chdtest
