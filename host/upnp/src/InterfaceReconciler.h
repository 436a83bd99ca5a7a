// Follows the network monitor's interface list: one interface stack (a GUPnP
// context) for each configured interface that is up with an address, started
// when the interface comes and dropped when it goes or changes its address.
// Every stack publishes all root devices and serves all web providers, and
// hears every change of an evented variable. The configuration is set from
// any thread; the stacks live on the GLib thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "InterfaceStack.h"
#include "ServiceBinding.h"
#include "tolvane/File.h"
#include "zuna_http_host/MainLoop.h"
#include "zuna_net/NetworkManager.h"
#include "zuna_upnp_host/UpnpStack.h"

namespace zuna_upnp {

class InterfaceReconciler : public zuna::net::NetworkManager::Observer,
                            public ChangeSink,
                            public std::enable_shared_from_this<InterfaceReconciler> {
 public:
  InterfaceReconciler(std::shared_ptr<ActionSink> actions, const host::StackOptions& options, std::string serverString);

  // Starts following names (empty and repeated ones dropped), told of their
  // changes by monitor (none when null). The loop the stacks run on, or
  // nullptr when it follows already.
  std::shared_ptr<zuna_http::host::MainLoop> follow(zuna::net::NetworkManager* monitor,
                                                    const Tolvane::StringVector& names);
  // The device on every stack from now on; false when it is there already.
  bool publish(RootDevice* device);
  void serve(zuna_http::WebServiceProvider* provider, const std::string& path);
  void stopServing(zuna_http::WebServiceProvider* provider);
  // Stops following and forgets devices and providers; the stacks still run
  // on the loop returned (nullptr when none ran) until closeStacks.
  std::shared_ptr<zuna_http::host::MainLoop> stopFollowing();

  std::vector<std::string> runningInterfaces();
  std::string location(const std::string& interfaceName, RootDevice* device);
  void refresh();

  // GLib thread: brings the stacks in line with the interfaces as they are now.
  void reconcile();
  // GLib thread.
  void closeStacks();

  void interfacesChanged() override;
  void publishChanges(LocalService* service, VarChanges changes) override;

 private:
  struct WebRoute {
    zuna_http::WebServiceProvider* provider;
    std::string path;
  };

  std::shared_ptr<zuna_http::host::MainLoop> currentLoop();
  StackSettings settings() const;
  void startStack(const std::string& name, const std::string& address, const std::vector<RootDevice*>& published,
                  const std::vector<WebRoute>& served);

  const std::shared_ptr<ActionSink> mActions;
  const host::StackOptions mOptions;
  const std::string mServerString;

  // Guards the configuration below; never held while waiting for the loop.
  std::mutex mMutex;
  bool mRunning = false;
  Tolvane::SmartPtr<zuna::net::NetworkManager> mMonitor;
  std::vector<std::string> mInterfaces;
  std::vector<RootDevice*> mDevices;
  std::vector<WebRoute> mRoutes;

  // The loop pointer has a lock of its own: publishChanges reads it with a
  // service's binding lock held.
  std::mutex mLoopMutex;
  std::shared_ptr<zuna_http::host::MainLoop> mLoop;

  // GLib thread only.
  std::map<std::string, std::unique_ptr<InterfaceStack>> mStacks;
};

}  // namespace zuna_upnp
