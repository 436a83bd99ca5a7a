// The UPnP stack on one network interface: a GUPnP context with its SSDP
// sockets and HTTP server, the root devices published on it and the web
// providers served by it. Lives and dies on the GLib thread.
#pragma once

#include <libgupnp/gupnp.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ServiceBinding.h"
#include "SubscriptionPolicy.h"
#include "zuna_http/WebServer.h"
#include "zuna_http_host/SoupAcceptor.h"
#include "zuna_upnp/LocalDevice.h"

namespace zuna_upnp {

class InterfaceStack;

// Receives the actions that control points invoke.
class ActionSink {
 public:
  virtual ~ActionSink() = default;
  // Must answer request exactly once, now or later on the GLib thread.
  virtual void actionInvoked(InterfaceStack* stack, LocalService* service, Action* action,
                             GUPnPServiceAction* request) = 0;
  // The stack is about to go: every request still open on it is answered now.
  virtual void stackClosing(InterfaceStack* stack) = 0;
};

struct StackSettings {
  int port = 0;
  unsigned messageDelayMs = 10;
  std::string serverString;
};

class InterfaceStack {
 public:
  InterfaceStack(ActionSink& sink, std::string interfaceName, std::string address);
  ~InterfaceStack();
  InterfaceStack(const InterfaceStack&) = delete;
  InterfaceStack& operator=(const InterfaceStack&) = delete;

  bool start(const StackSettings& settings);
  bool publish(RootDevice* device);
  void addRoute(zuna_http::WebServiceProvider* provider, const std::string& path);
  void removeRoutes(zuna_http::WebServiceProvider* provider);
  // Sends the changes to the service's subscribers in one event message.
  void notify(LocalService* service, const VarChanges& changes);
  // The interface went down or lost its address: nothing more is sent.
  void detachFromNetwork();

  std::string location(RootDevice* device) const;
  const std::string& name() const { return mName; }
  const std::string& address() const { return mAddress; }
  ActionSink& sink() { return mSink; }

 private:
  struct Endpoint {
    LocalService* service;
    GUPnPService* gupnpService;
  };
  struct Published {
    RootDevice* device;
    GUPnPRootDevice* root;
    std::vector<Endpoint> endpoints;
  };

  void serveDocument(const std::string& path, const std::string& document);
  bool bindServices(Published& published);
  void bindActions(const Endpoint& endpoint);
  void unpublish(Published& published);

  ActionSink& mSink;
  std::string mName;
  std::string mAddress;
  StackSettings mSettings;
  GUPnPContext* mContext = nullptr;
  SoupServer* mServer = nullptr;
  std::vector<std::unique_ptr<zuna_http::host::SoupAcceptor>> mAcceptors;
  std::unique_ptr<SubscriptionPolicy> mSubscriptions;
  std::vector<Published> mPublished;
  std::map<std::string, zuna_http::WebServiceProvider*> mRoutes;  // path -> provider
};

}  // namespace zuna_upnp
