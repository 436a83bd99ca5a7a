#include "InterfaceReconciler.h"

#include <algorithm>
#include <map>
#include <utility>

#include "StackLoop.h"
#include "tolvane/Logging.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_net_host/InterfaceAddresses.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_upnp {

using zuna_http::host::MainLoop;

namespace {

int configuredPort(int requested) {
  if (requested >= 0) {
    return requested;
  }
  auto* settings = dynamic_cast<Tolvane::host::HostPlatformSettings*>(Tolvane::PlatformSettings::getInstance());
  return settings != nullptr ? settings->getUpnpPort() : 0;
}

}  // namespace

InterfaceReconciler::InterfaceReconciler(std::shared_ptr<ActionSink> actions, const host::StackOptions& options,
                                         std::string serverString)
    : mActions(std::move(actions)), mOptions(options), mServerString(std::move(serverString)) {}

std::shared_ptr<MainLoop> InterfaceReconciler::follow(zuna::net::NetworkManager* monitor,
                                                      const Tolvane::StringVector& names) {
  std::shared_ptr<MainLoop> loop;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mRunning) {
      return nullptr;
    }
    mInterfaces.clear();
    for (const std::string& name : names) {
      if (!name.empty() && std::find(mInterfaces.begin(), mInterfaces.end(), name) == mInterfaces.end()) {
        mInterfaces.push_back(name);
      }
    }
    mMonitor.reset(monitor);
    mRunning = true;
    loop = acquireStackLoop();
  }
  {
    std::lock_guard<std::mutex> lock(mLoopMutex);
    mLoop = loop;
  }
  if (monitor != nullptr) {
    monitor->addObserver(this);
  }
  return loop;
}

bool InterfaceReconciler::publish(RootDevice* device) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (std::find(mDevices.begin(), mDevices.end(), device) != mDevices.end()) {
      return false;
    }
    mDevices.push_back(device);
  }
  for (size_t i = 0; i < device->getServiceCount(); ++i) {
    device->getService(i)->getBinding()->setSink(this);
  }
  if (std::shared_ptr<MainLoop> loop = currentLoop()) {
    loop->invokeAndWait([this, device] {
      for (auto& stack : mStacks) {
        stack.second->publish(device);
      }
    });
  }
  return true;
}

void InterfaceReconciler::serve(zuna_http::WebServiceProvider* provider, const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mRoutes.push_back(WebRoute{provider, path});
  }
  if (std::shared_ptr<MainLoop> loop = currentLoop()) {
    loop->invokeAndWait([this, provider, path] {
      for (auto& stack : mStacks) {
        stack.second->addRoute(provider, path);
      }
    });
  }
}

void InterfaceReconciler::stopServing(zuna_http::WebServiceProvider* provider) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mRoutes.erase(std::remove_if(mRoutes.begin(), mRoutes.end(),
                                 [provider](const WebRoute& route) { return route.provider == provider; }),
                  mRoutes.end());
  }
  if (std::shared_ptr<MainLoop> loop = currentLoop()) {
    loop->invokeAndWait([this, provider] {
      for (auto& stack : mStacks) {
        stack.second->removeRoutes(provider);
      }
    });
  }
}

std::shared_ptr<MainLoop> InterfaceReconciler::stopFollowing() {
  Tolvane::SmartPtr<zuna::net::NetworkManager> monitor;
  std::vector<RootDevice*> devices;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mRunning = false;
    monitor = std::move(mMonitor);
    devices.swap(mDevices);
    mRoutes.clear();
  }
  if (monitor) {
    monitor->removeObserver(this);
  }
  for (RootDevice* device : devices) {
    for (size_t i = 0; i < device->getServiceCount(); ++i) {
      device->getService(i)->getBinding()->setSink(nullptr);
    }
  }
  std::shared_ptr<MainLoop> loop;
  {
    std::lock_guard<std::mutex> lock(mLoopMutex);
    loop.swap(mLoop);
  }
  return loop;
}

// A stack dropped with its devices still available says byebye for every
// resource they announced, all at once on this thread (InterfaceStack).
void InterfaceReconciler::closeStacks() { mStacks.clear(); }

std::vector<std::string> InterfaceReconciler::runningInterfaces() {
  std::vector<std::string> names;
  if (std::shared_ptr<MainLoop> loop = currentLoop()) {
    loop->invokeAndWait([this, &names] {
      for (auto& stack : mStacks) {
        names.push_back(stack.first);
      }
    });
  }
  return names;
}

std::string InterfaceReconciler::location(const std::string& interfaceName, RootDevice* device) {
  std::string location;
  if (std::shared_ptr<MainLoop> loop = currentLoop()) {
    loop->invokeAndWait([this, &location, &interfaceName, device] {
      auto stack = mStacks.find(interfaceName);
      if (stack != mStacks.end()) {
        location = stack->second->location(device);
      }
    });
  }
  return location;
}

void InterfaceReconciler::refresh() {
  if (std::shared_ptr<MainLoop> loop = currentLoop()) {
    loop->invokeAndWait([this] { reconcile(); });
  }
}

void InterfaceReconciler::interfacesChanged() {
  std::shared_ptr<MainLoop> target = currentLoop();
  if (target) {
    std::weak_ptr<InterfaceReconciler> weak = shared_from_this();
    target->post([weak] {
      if (std::shared_ptr<InterfaceReconciler> reconciler = weak.lock()) {
        reconciler->reconcile();
      }
    });
  }
}

void InterfaceReconciler::publishChanges(LocalService* service, VarChanges changes) {
  std::shared_ptr<MainLoop> target = currentLoop();
  if (!target) {
    return;
  }
  std::weak_ptr<InterfaceReconciler> weak = shared_from_this();
  target->post([weak, service, changes] {
    if (std::shared_ptr<InterfaceReconciler> reconciler = weak.lock()) {
      for (auto& stack : reconciler->mStacks) {
        stack.second->notify(service, changes);
      }
    }
  });
}

void InterfaceReconciler::reconcile() {
  std::vector<std::string> wanted;
  std::vector<RootDevice*> published;
  std::vector<WebRoute> served;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mRunning) {
      return;
    }
    wanted = mInterfaces;
    published = mDevices;
    served = mRoutes;
  }
  // Until the link works, SSDP messages would only fail.
  const std::map<std::string, std::string> addresses = zuna::net::host::currentIPv4Addresses(true);
  for (const std::string& name : wanted) {
    auto now = addresses.find(name);
    auto stack = mStacks.find(name);
    if (stack != mStacks.end() && (now == addresses.end() || now->second != stack->second->address())) {
      TL_LOG(5, "Interface [%s] went down or changed its address", name.c_str());
      stack->second->detachFromNetwork();
      mStacks.erase(stack);
    }
    if (now != addresses.end() && mStacks.count(name) == 0) {
      startStack(name, now->second, published, served);
    }
  }
}

std::shared_ptr<MainLoop> InterfaceReconciler::currentLoop() {
  std::lock_guard<std::mutex> lock(mLoopMutex);
  return mLoop;
}

StackSettings InterfaceReconciler::settings() const {
  StackSettings settings;
  settings.port = configuredPort(mOptions.httpPort);
  settings.messageDelayMs = mOptions.ssdpMessageDelayMs;
  settings.serverString = mServerString;
  return settings;
}

void InterfaceReconciler::startStack(const std::string& name, const std::string& address,
                                     const std::vector<RootDevice*>& published, const std::vector<WebRoute>& served) {
  auto stack = std::make_unique<InterfaceStack>(*mActions, name, address);
  if (!stack->start(settings())) {
    return;  // tried again at the next change of the interfaces
  }
  for (const WebRoute& route : served) {
    stack->addRoute(route.provider, route.path);
  }
  for (RootDevice* device : published) {
    stack->publish(device);
  }
  mStacks[name] = std::move(stack);
}

}  // namespace zuna_upnp
