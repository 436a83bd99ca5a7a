#include "ProviderRoutes.h"

#include <algorithm>

namespace chdtest {

void ProviderRoutes::add(const Route& route) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mRoutes.push_back(route);
}

void ProviderRoutes::removeProvider(const zuna_http::WebServiceProvider* provider) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mRoutes.erase(std::remove_if(mRoutes.begin(), mRoutes.end(),
                               [provider](const Route& route) { return route.provider == provider; }),
                mRoutes.end());
}

void ProviderRoutes::removeListener(const void* listener) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mRoutes.erase(std::remove_if(mRoutes.begin(), mRoutes.end(),
                               [listener](const Route& route) { return route.listener == listener; }),
                mRoutes.end());
}

zuna_http::WebServiceProvider* ProviderRoutes::find(const void* listener, zuna_http::WebServer::Method method,
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
bool ProviderRoutes::isBelow(const std::string& path, const std::string& prefix) {
  if (path.compare(0, prefix.size(), prefix) != 0) {
    return false;
  }
  return prefix.empty() || path.size() == prefix.size() || prefix.back() == '/' || path[prefix.size()] == '/';
}

}  // namespace chdtest
