// A UPnP service published by this box.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zuna_http/WebServer.h"
#include "zuna_upnp/Action.h"
#include "zuna_upnp/Types.h"

namespace Tolvane {
class EventDispatcher;
}

namespace zuna_upnp {

class LocalDevice;
class RootDevice;

// Actions of the service run on the service's own event dispatcher (one
// thread per service), one at a time; a slow handler holds up no other
// service. The stack marshals arguments and answers to and from the network.
//
// Contract:
// - Set-up (type id, URLs, service id, spec, variables, actions, genSCPDXML)
//   happens on the main thread before the device is published; afterwards
//   only getVars(), sendChangedVars() and updateServiceParam() change the
//   service, from any thread (Vars has its own lock).
// - Ownership: the device that the service is added to owns it; the service
//   owns its actions (addAction) and its dispatcher, which it shuts down in
//   its destructor before its members go.
// - An action handler may block its dispatcher (SetValues waits up to 5 s);
//   the stack keeps answering other services and the network meanwhile, and
//   answers the control point when the handler returns.
// - Threads: the constructor and the set-up run on the main thread (the
//   daemon builds its services in its device's constructor); action handlers
//   and the agents posted to getDispatcher() run on the dispatcher;
//   handleRequest runs on a worker thread of the web server. The stack itself
//   only reads the variables, on its own network thread.
class LocalService : public zuna_http::WebServiceProvider {
 public:
  LocalService(LocalDevice* parent, RootDevice* root);
  ~LocalService() override;
  LocalService(const LocalService&) = delete;
  LocalService& operator=(const LocalService&) = delete;

  void setTypeID(const TypeID& typeId);
  const TypeID& getTypeID() const;
  std::string getServiceTypeIDString() const;
  // The service's name within its device (the type id's name).
  const std::string& getName() const;
  // Control, event and description URLs derived from the type id.
  void makeURLs();
  // "urn:upnp-org:serviceId:<name>".
  void makeServiceID();
  void setServiceSpec(int major, int minor);
  int getServiceMajorSpec() const;
  int getServiceMinorSpec() const;

  Vars& getVars();
  const Vars& getVars() const;
  // Takes ownership. False (and nothing added) when the name is taken.
  bool addAction(Action* action);
  const std::vector<std::unique_ptr<Action>>& getActions() const;
  Action* findAction(const std::string& name) const;

  // Builds the service description (SCPD) from the variables and actions.
  void genSCPDXML();
  const std::string& getXML() const;
  std::string getXmlns() const;

  std::string getServiceID() const;
  std::string getControlURL() const;
  std::string getEventURL() const;
  std::string getSCPDURL() const;
  std::string getConfigId() const;
  LocalDevice* getParentDev() const;
  LocalDevice* getLocalParentDev() const;
  RootDevice* getRootDev() const;
  RootDevice* getLocalRootDev() const;

  // Sends the evented variables changed since the last send to every
  // subscriber in one event message. False when nothing had changed.
  // Called from any thread (the daemon: its services' dispatchers, and the
  // main thread while a service is built); it hands the changes to the
  // stack's network thread and returns without waiting for the message.
  bool sendChangedVars();
  // True when at least one control point holds a subscription. Any thread.
  bool hasSubscribers() const;

  // Web requests for the service's own URLs; the default answers 404. Runs on
  // a worker thread of the web server.
  void handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* request) override;

  // Sets a state variable from a parameter change; overridden by services
  // that keep a data model. The default sets the variable named key and
  // returns whether it exists. Called on any thread; the stack never calls
  // it (the configuration management service's override moves the change to
  // the service's dispatcher).
  virtual bool updateServiceParam(std::string key, std::string value, bool flag);

  // The service dispatcher: actions and the service's own agents run here.
  // Exists from construction until the destructor; safe from any thread.
  Tolvane::EventDispatcher* getDispatcher() const;

  // The stack's own state of the service (network binding); opaque here.
  struct Binding;
  Binding* getBinding() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace zuna_upnp
