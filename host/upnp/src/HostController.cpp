#include "zuna_upnp_host/HostController.h"

#include <sys/utsname.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "FunctionAgent.h"
#include "InterfaceAddresses.h"
#include "InterfaceStack.h"
#include "MainLoop.h"
#include "RequestPool.h"
#include "ServiceBinding.h"
#include "tolvane/EventThread.h"
#include "tolvane/Logging.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_net/NetworkManager.h"
#include "zuna_upnp_host/UpnpStack.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_upnp::host {

namespace {

std::atomic<Controller*> gTestController{nullptr};

// Shutdown waits this long at most for byebyes still queued behind alives.
constexpr unsigned kMaxGoodbyeMs = 1000;
constexpr unsigned kGoodbyeMarginMs = 30;

std::string makeServerString() {
  utsname system{};
  uname(&system);
  return std::string(system.sysname) + "/" + system.release + " UPnP/1.0 CHD/" + CHD_STACK_VERSION;
}

int configuredPort(int requested) {
  if (requested >= 0) {
    return requested;
  }
  auto* settings = dynamic_cast<Tolvane::host::HostPlatformSettings*>(Tolvane::PlatformSettings::getInstance());
  return settings != nullptr ? settings->getUpnpPort() : 0;
}

struct WebRoute {
  zuna_http::WebServiceProvider* provider;
  std::string path;
};

struct PendingAction {
  GUPnPServiceAction* request;
  InterfaceStack* stack;
  Action* action;
};

bool readInputs(const Action& action, GUPnPServiceAction* request, std::vector<std::string>& inputs) {
  if (gupnp_service_action_get_argument_count(request) != action.getInArgs().size()) {
    return false;
  }
  for (const ActionArgument& argument : action.getInArgs()) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    gupnp_service_action_get_value(request, argument.name.c_str(), &value);
    const char* text = g_value_get_string(&value);
    const bool present = text != nullptr;
    if (present) {
      inputs.emplace_back(text);
    }
    g_value_unset(&value);
    if (!present) {
      return false;
    }
  }
  return true;
}

void answer(const PendingAction& pending, const UPnPReturn& result, const std::vector<std::string>& outputs) {
  if (!result.isSuccess()) {
    const guint code = result.code > 0 ? static_cast<guint>(result.code) : guint{GUPNP_CONTROL_ERROR_ACTION_FAILED};
    const std::string text = result.description.empty() ? "Action Failed" : result.description;
    gupnp_service_action_return_error(pending.request, code, text.c_str());
    return;
  }
  const std::vector<ActionArgument>& names = pending.action->getOutArgs();
  for (size_t i = 0; i < names.size(); ++i) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    // GUPnP escapes the value into its answer at once; a whole-tree answer
    // is 11 KB that need not be copied first.
    g_value_set_static_string(&value, i < outputs.size() ? outputs[i].c_str() : "");
    gupnp_service_action_set_value(pending.request, names[i].name.c_str(), &value);
    g_value_unset(&value);
  }
  gupnp_service_action_return_success(pending.request);
}

}  // namespace

struct HostController::Core : ChangeSink,
                              ActionSink,
                              zuna::net::NetworkManager::Observer,
                              std::enable_shared_from_this<Core> {
  explicit Core(const StackOptions& stackOptions) : options(stackOptions), serverString(makeServerString()) {}

  const StackOptions options;
  const std::string serverString;

  // Guards the configuration below; never held while waiting for the loop.
  std::mutex mutex;
  bool running = false;
  Tolvane::SmartPtr<zuna::net::NetworkManager> monitor;
  std::vector<std::string> interfaces;
  std::vector<RootDevice*> devices;
  std::vector<WebRoute> routes;

  // The loop pointer has a lock of its own: publishChanges reads it with a
  // service's binding lock held.
  std::mutex loopMutex;
  std::shared_ptr<MainLoop> loop;

  // GLib thread only.
  std::weak_ptr<MainLoop> runningLoop;  // the loop this state lives on, set by init
  std::map<std::string, std::unique_ptr<InterfaceStack>> stacks;
  std::map<uint64_t, PendingAction> pending;
  uint64_t lastActionId = 0;

  std::shared_ptr<MainLoop> currentLoop() {
    std::lock_guard<std::mutex> lock(loopMutex);
    return loop;
  }

  void publishChanges(LocalService* service, VarChanges changes) override {
    std::shared_ptr<MainLoop> target = currentLoop();
    if (!target) {
      return;
    }
    std::weak_ptr<Core> weak = shared_from_this();
    target->post([weak, service, changes] {
      if (std::shared_ptr<Core> core = weak.lock()) {
        for (auto& stack : core->stacks) {
          stack.second->notify(service, changes);
        }
      }
    });
  }

  void interfacesChanged() override {
    std::shared_ptr<MainLoop> target = currentLoop();
    if (target) {
      std::weak_ptr<Core> weak = shared_from_this();
      target->post([weak] {
        if (std::shared_ptr<Core> core = weak.lock()) {
          core->reconcile();
        }
      });
    }
  }

  void actionInvoked(InterfaceStack* stack, LocalService* service, Action* action,
                     GUPnPServiceAction* request) override {
    std::vector<std::string> inputs;
    if (!readInputs(*action, request, inputs)) {
      gupnp_service_action_return_error(request, GUPNP_CONTROL_ERROR_INVALID_ARGS, "Invalid Args");
      return;
    }
    const uint64_t id = ++lastActionId;
    pending.emplace(id, PendingAction{request, stack, action});
    std::weak_ptr<Core> weak = shared_from_this();
    // Shutdown may already have let go of the loop while this request was
    // read: the answer then has nowhere to go, and the request is answered
    // when its interface stack closes.
    std::weak_ptr<MainLoop> replyLoop = runningLoop;
    // The handler runs on the service's own dispatcher, so a slow one holds
    // up only its service; the answer goes back to the GLib thread.
    Tolvane::SmartPtr<Tolvane::EventAgent> agent(new FunctionAgent(service, [weak, replyLoop, action, id, inputs] {
      std::vector<std::string> outputs;
      UPnPReturn result = action->invoke(inputs, outputs);
      std::shared_ptr<MainLoop> loop = replyLoop.lock();
      if (!loop) {
        return;
      }
      loop->post([weak, id, result = std::move(result), outputs = std::move(outputs)] {
        if (std::shared_ptr<Core> core = weak.lock()) {
          core->completeAction(id, result, outputs);
        }
      });
    }));
    service->getDispatcher()->post(agent);
  }

  void completeAction(uint64_t id, const UPnPReturn& result, const std::vector<std::string>& outputs) {
    auto found = pending.find(id);
    if (found == pending.end()) {
      return;  // already answered when its interface went away
    }
    PendingAction action = found->second;
    pending.erase(found);
    answer(action, result, outputs);
  }

  void stackClosing(InterfaceStack* stack) override {
    for (auto it = pending.begin(); it != pending.end();) {
      if (it->second.stack == stack) {
        gupnp_service_action_return_error(it->second.request, GUPNP_CONTROL_ERROR_ACTION_FAILED, "Action Failed");
        it = pending.erase(it);
      } else {
        ++it;
      }
    }
  }

  StackSettings settings() const {
    StackSettings settings;
    settings.port = configuredPort(options.httpPort);
    settings.messageDelayMs = options.ssdpMessageDelayMs;
    settings.serverString = serverString;
    return settings;
  }

  // GLib thread: brings the stacks in line with the interfaces as they are now.
  void reconcile() {
    std::vector<std::string> wanted;
    std::vector<RootDevice*> published;
    std::vector<WebRoute> served;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (!running) {
        return;
      }
      wanted = interfaces;
      published = devices;
      served = routes;
    }
    // Until the link works, SSDP messages would only fail.
    const std::map<std::string, std::string> addresses = zuna::net::host::currentIPv4Addresses(true);
    for (const std::string& name : wanted) {
      auto now = addresses.find(name);
      auto stack = stacks.find(name);
      if (stack != stacks.end() && (now == addresses.end() || now->second != stack->second->address())) {
        TL_LOG(5, "Interface [%s] went down or changed its address", name.c_str());
        stack->second->detachFromNetwork();
        stacks.erase(stack);
      }
      if (now != addresses.end() && stacks.count(name) == 0) {
        startStack(name, now->second, published, served);
      }
    }
  }

  void startStack(const std::string& name, const std::string& address, const std::vector<RootDevice*>& published,
                  const std::vector<WebRoute>& served) {
    auto stack = std::make_unique<InterfaceStack>(*this, name, address);
    if (!stack->start(settings())) {
      return;  // tried again at the next change of the interfaces
    }
    for (const WebRoute& route : served) {
      stack->addRoute(route.provider, route.path);
    }
    for (RootDevice* device : published) {
      stack->publish(device);
    }
    stacks[name] = std::move(stack);
  }

  void sayGoodbyeAndStop(MainLoop& stopping) {
    unsigned drainMs = 0;
    bool advertised = false;
    stopping.invokeAndWait([this, &drainMs, &advertised] {
      for (auto& stack : stacks) {
        drainMs = std::max(drainMs, stack.second->sayGoodbye());
        advertised = true;
      }
    });
    if (advertised && !stopping.isLoopThread()) {
      // The byebyes leave from GSSDP's queue on the GLib thread meanwhile.
      std::this_thread::sleep_for(std::chrono::milliseconds(std::min(drainMs, kMaxGoodbyeMs) + kGoodbyeMarginMs));
    }
    stopping.invokeAndWait([this] {
      stacks.clear();
      pending.clear();
    });
  }
};

HostController::HostController(const StackOptions& options) : mCore(std::make_shared<Core>(options)) {}

HostController::~HostController() { shutdown(); }

bool HostController::init(zuna::net::NetworkManager* monitor, Tolvane::StringVector interfaces,
                          Tolvane::StringVector serverNames) {
  TL_TRACE();
  std::shared_ptr<MainLoop> loop;
  {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (mCore->running) {
      TL_LOG(2, "UPnP stack already running");
      return false;
    }
    mCore->interfaces.clear();
    for (const std::string& name : interfaces) {
      if (!name.empty() &&
          std::find(mCore->interfaces.begin(), mCore->interfaces.end(), name) == mCore->interfaces.end()) {
        mCore->interfaces.push_back(name);
      }
    }
    for (const std::string& server : serverNames) {
      TL_LOG(6, "Working with server [%s]", server.c_str());
    }
    mCore->monitor.reset(monitor);
    mCore->running = true;
    loop = MainLoop::acquire();
  }
  {
    std::lock_guard<std::mutex> lock(mCore->loopMutex);
    mCore->loop = loop;
  }
  if (monitor != nullptr) {
    monitor->addObserver(mCore.get());
  }
  loop->invokeAndWait([this, weakLoop = std::weak_ptr<MainLoop>(loop)] {
    mCore->runningLoop = weakLoop;
    mCore->reconcile();
  });
  return true;
}

bool HostController::addRootDevice(RootDevice* device) {
  TL_TRACE();
  if (device == nullptr) {
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (std::find(mCore->devices.begin(), mCore->devices.end(), device) != mCore->devices.end()) {
      return false;
    }
    mCore->devices.push_back(device);
  }
  for (size_t i = 0; i < device->getServiceCount(); ++i) {
    device->getService(i)->getBinding()->setSink(mCore.get());
  }
  if (std::shared_ptr<MainLoop> loop = mCore->currentLoop()) {
    loop->invokeAndWait([this, device] {
      for (auto& stack : mCore->stacks) {
        stack.second->publish(device);
      }
    });
  }
  return true;
}

bool HostController::registerWebProvider(zuna_http::WebServiceProvider* provider, const std::string& method,
                                         const std::string& path) {
  TL_TRACE();
  if (provider == nullptr || zuna_http::WebServer::getMethod(method) != zuna_http::WebServer::METHOD_GET) {
    TL_LOG(2, "Web providers serve GET only, not [%s]", method.c_str());
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    mCore->routes.push_back(WebRoute{provider, path});
  }
  if (std::shared_ptr<MainLoop> loop = mCore->currentLoop()) {
    loop->invokeAndWait([this, provider, path] {
      for (auto& stack : mCore->stacks) {
        stack.second->addRoute(provider, path);
      }
    });
  }
  return true;
}

void HostController::unregisterWebProvider(zuna_http::WebServiceProvider* provider) {
  TL_TRACE();
  {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    auto& routes = mCore->routes;
    routes.erase(std::remove_if(routes.begin(), routes.end(),
                                [provider](const WebRoute& route) { return route.provider == provider; }),
                 routes.end());
  }
  if (std::shared_ptr<MainLoop> loop = mCore->currentLoop()) {
    loop->invokeAndWait([this, provider] {
      for (auto& stack : mCore->stacks) {
        stack.second->removeRoutes(provider);
      }
    });
  }
  zuna_http::host::RequestPool::instance().drain(provider);
}

std::string HostController::getServerString() { return mCore->serverString; }

void HostController::shutdown() {
  TL_TRACE();
  Tolvane::SmartPtr<zuna::net::NetworkManager> monitor;
  std::vector<RootDevice*> devices;
  {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    mCore->running = false;
    monitor = std::move(mCore->monitor);
    devices.swap(mCore->devices);
    mCore->routes.clear();
  }
  if (monitor) {
    monitor->removeObserver(mCore.get());
  }
  for (RootDevice* device : devices) {
    for (size_t i = 0; i < device->getServiceCount(); ++i) {
      device->getService(i)->getBinding()->setSink(nullptr);
    }
  }
  std::shared_ptr<MainLoop> loop;
  {
    std::lock_guard<std::mutex> lock(mCore->loopMutex);
    loop.swap(mCore->loop);
  }
  if (loop) {
    mCore->sayGoodbyeAndStop(*loop);
  }
}

std::vector<std::string> HostController::getRunningInterfaces() {
  std::vector<std::string> names;
  if (std::shared_ptr<MainLoop> loop = mCore->currentLoop()) {
    loop->invokeAndWait([this, &names] {
      for (auto& stack : mCore->stacks) {
        names.push_back(stack.first);
      }
    });
  }
  return names;
}

std::string HostController::getDescriptionLocation(const std::string& interfaceName, RootDevice* device) {
  std::string location;
  if (std::shared_ptr<MainLoop> loop = mCore->currentLoop()) {
    loop->invokeAndWait([this, &location, &interfaceName, device] {
      auto stack = mCore->stacks.find(interfaceName);
      if (stack != mCore->stacks.end()) {
        location = stack->second->location(device);
      }
    });
  }
  return location;
}

void HostController::refreshInterfaces() {
  if (std::shared_ptr<MainLoop> loop = mCore->currentLoop()) {
    loop->invokeAndWait([this] { mCore->reconcile(); });
  }
}

void setControllerForTest(Controller* controller) { gTestController.store(controller); }

}  // namespace zuna_upnp::host

namespace zuna_upnp {

Controller* Controller::getInstance() {
  if (Controller* test = host::gTestController.load()) {
    return test;
  }
  // Never destroyed: the daemon shuts it down explicitly, and destroying it
  // among the static destructors would race the threads still running then.
  static host::HostController* instance = new host::HostController();
  return instance;
}

}  // namespace zuna_upnp
