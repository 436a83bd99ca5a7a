#include "zuna_upnp_host/HostController.h"

#include <sys/utsname.h>

#include <atomic>
#include <memory>

#include "ActionBridge.h"
#include "InterfaceReconciler.h"
#include "tolvane/Logging.h"
#include "zuna_http_host/RequestPool.h"
#include "zuna_upnp_host/UpnpStack.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_upnp::host {

namespace {

std::atomic<Controller*> gTestController{nullptr};

std::string makeServerString() {
  utsname system{};
  uname(&system);
  return std::string(system.sysname) + "/" + system.release + " UPnP/1.0 CHD/" + CHD_STACK_VERSION;
}

}  // namespace

// The controller's two halves: the bridge that carries actions to the
// services' dispatchers and back, and the reconciler that keeps one stack
// running on each interface.
struct HostController::Core {
  explicit Core(const StackOptions& options)
      : serverString(makeServerString()),
        actions(std::make_shared<ActionBridge>()),
        interfaces(std::make_shared<InterfaceReconciler>(actions, options, serverString)) {}

  const std::string serverString;
  const std::shared_ptr<ActionBridge> actions;
  const std::shared_ptr<InterfaceReconciler> interfaces;
};

HostController::HostController(const StackOptions& options) : mCore(std::make_shared<Core>(options)) {}

HostController::~HostController() { shutdown(); }

bool HostController::init(zuna::net::NetworkManager* monitor, Tolvane::StringVector interfaces,
                          Tolvane::StringVector serverNames) {
  TL_TRACE();
  std::shared_ptr<zuna_http::host::MainLoop> loop = mCore->interfaces->follow(monitor, interfaces);
  if (!loop) {
    TL_LOG(2, "UPnP stack already running");
    return false;
  }
  for (const std::string& server : serverNames) {
    TL_LOG(6, "Working with server [%s]", server.c_str());
  }
  loop->invokeAndWait([this, weakLoop = std::weak_ptr<zuna_http::host::MainLoop>(loop)] {
    mCore->actions->replyOn(weakLoop);
    mCore->interfaces->reconcile();
  });
  return true;
}

bool HostController::addRootDevice(RootDevice* device) {
  TL_TRACE();
  return device != nullptr && mCore->interfaces->publish(device);
}

bool HostController::registerWebProvider(zuna_http::WebServiceProvider* provider, const std::string& method,
                                         const std::string& path) {
  TL_TRACE();
  if (provider == nullptr || zuna_http::WebServer::getMethod(method) != zuna_http::WebServer::METHOD_GET) {
    TL_LOG(2, "Web providers serve GET only, not [%s]", method.c_str());
    return false;
  }
  mCore->interfaces->serve(provider, path);
  return true;
}

void HostController::unregisterWebProvider(zuna_http::WebServiceProvider* provider) {
  TL_TRACE();
  mCore->interfaces->stopServing(provider);
  zuna_http::host::RequestPool::instance().drain(provider);
}

std::string HostController::getServerString() { return mCore->serverString; }

void HostController::shutdown() {
  TL_TRACE();
  std::shared_ptr<zuna_http::host::MainLoop> loop = mCore->interfaces->stopFollowing();
  if (!loop) {
    return;
  }
  loop->invokeAndWait([this] {
    mCore->interfaces->closeStacks();
    mCore->actions->forgetPending();
  });
}

std::vector<std::string> HostController::getRunningInterfaces() { return mCore->interfaces->runningInterfaces(); }

std::string HostController::getDescriptionLocation(const std::string& interfaceName, RootDevice* device) {
  return mCore->interfaces->location(interfaceName, device);
}

void HostController::refreshInterfaces() { mCore->interfaces->refresh(); }

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
