#include "ProviderRegistry.h"

#include <algorithm>

namespace chdtest {

void ProviderRegistry::add(const Route& route) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mRoutes.push_back(route);
}

void ProviderRegistry::removeProvider(const zuna_http::WebServiceProvider* provider) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mRoutes.erase(std::remove_if(mRoutes.begin(), mRoutes.end(),
                               [provider](const Route& route) { return route.provider == provider; }),
                mRoutes.end());
}

void ProviderRegistry::removeListener(const void* listener) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mRoutes.erase(std::remove_if(mRoutes.begin(), mRoutes.end(),
                               [listener](const Route& route) { return route.listener == listener; }),
                mRoutes.end());
}

zuna_http::WebServiceProvider* ProviderRegistry::find(const void* listener, zuna_http::WebServer::Method method,
                                                      const std::string& path) const {
  const std::lock_guard<std::mutex> lock(mMutex);
  const Route* best = nullptr;
  for (const Route& route : mRoutes) {
    if (route.listener == listener && route.method == method && isBelow(path, route.path) &&
        (best == nullptr || route.path.size() > best->path.size())) {
      best = &route;
    }
  }
  return best != nullptr ? best->provider : nullptr;
}

// "/var/log" takes "/var/log" and "/var/log/messages", not "/var/logs".
bool ProviderRegistry::isBelow(const std::string& path, const std::string& prefix) {
  if (path.compare(0, prefix.size(), prefix) != 0) {
    return false;
  }
  return prefix.empty() || path.size() == prefix.size() || prefix.back() == '/' || path[prefix.size()] == '/';
}

}  // namespace chdtest
