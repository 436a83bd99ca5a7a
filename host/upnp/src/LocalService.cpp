#include "zuna_upnp/LocalService.h"

#include <glib.h>

#include "DescriptionXml.h"
#include "FunctionAgent.h"
#include "ServiceBinding.h"
#include "tolvane/EventThread.h"
#include "tolvane/Logging.h"
#include "tolvane_host/ThreadSignals.h"
#include "zuna_upnp/LocalDevice.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_upnp {

struct LocalService::Impl {
  LocalDevice* parent = nullptr;
  RootDevice* root = nullptr;
  TypeID typeId{std::string(), std::string(), 1, TypeID::SERVICE};
  std::string serviceId;
  std::string controlURL;
  std::string eventURL;
  std::string scpdURL;
  int majorSpec = 1;
  int minorSpec = 0;
  Vars vars;
  std::vector<std::unique_ptr<Action>> actions;
  std::string xml;
  Binding binding;
  std::unique_ptr<Tolvane::EventThread> dispatcher;
};

LocalService::LocalService(LocalDevice* parent, RootDevice* root) : mImpl(std::make_unique<Impl>()) {
  mImpl->parent = parent;
  mImpl->root = root;
  const Tolvane::host::ProcessSignalsBlockedForNewThreads signalsStayElsewhere;
  mImpl->dispatcher = std::make_unique<Tolvane::EventThread>("UPnPService");
  mImpl->dispatcher->post(Tolvane::SmartPtr<Tolvane::EventAgent>(new FunctionAgent(this, [] {
    if (!Tolvane::host::runInBackground()) {
      TL_LOG(2, "UPnP service thread keeps its scheduling policy");
    }
  })));
}

LocalService::~LocalService() {
  mImpl->binding.setSink(nullptr);
  // Queued actions still point at this service: drop them before it goes.
  mImpl->dispatcher->removeAgentsByReceiver(this);
  mImpl->dispatcher->shutdown();
}

void LocalService::setTypeID(const TypeID& typeId) { mImpl->typeId = typeId; }

const TypeID& LocalService::getTypeID() const { return mImpl->typeId; }

std::string LocalService::getServiceTypeIDString() const { return mImpl->typeId.toString(); }

const std::string& LocalService::getName() const { return mImpl->typeId.getName(); }

void LocalService::makeURLs() {
  std::string base;
  if (mImpl->parent != nullptr && !mImpl->parent->getTypeID().getName().empty()) {
    base = "/" + mImpl->parent->getTypeID().getName();
  }
  base += "/" + getName();
  mImpl->controlURL = base + "/control";
  mImpl->eventURL = base + "/event";
  mImpl->scpdURL = base + "/scpd.xml";
}

void LocalService::makeServiceID() { mImpl->serviceId = "urn:upnp-org:serviceId:" + getName(); }

void LocalService::setServiceSpec(int major, int minor) {
  mImpl->majorSpec = major;
  mImpl->minorSpec = minor;
}

int LocalService::getServiceMajorSpec() const { return mImpl->majorSpec; }

int LocalService::getServiceMinorSpec() const { return mImpl->minorSpec; }

Vars& LocalService::getVars() { return mImpl->vars; }

const Vars& LocalService::getVars() const { return mImpl->vars; }

bool LocalService::addAction(Action* action) {
  if (action == nullptr) {
    return false;
  }
  if (findAction(action->getName()) != nullptr) {
    delete action;  // ours from the call on, and not wanted
    return false;
  }
  mImpl->actions.emplace_back(action);
  return true;
}

const std::vector<std::unique_ptr<Action>>& LocalService::getActions() const { return mImpl->actions; }

Action* LocalService::findAction(const std::string& name) const {
  for (const std::unique_ptr<Action>& action : mImpl->actions) {
    if (action->getName() == name) {
      return action.get();
    }
  }
  return nullptr;
}

void LocalService::genSCPDXML() { mImpl->xml = buildServiceDescription(*this); }

const std::string& LocalService::getXML() const { return mImpl->xml; }

std::string LocalService::getXmlns() const { return getServiceTypeIDString(); }

std::string LocalService::getServiceID() const { return mImpl->serviceId; }

std::string LocalService::getControlURL() const { return mImpl->controlURL; }

std::string LocalService::getEventURL() const { return mImpl->eventURL; }

std::string LocalService::getSCPDURL() const { return mImpl->scpdURL; }

std::string LocalService::getConfigId() const {
  // configId ranges over 0..2^24-1 and must change when the description does.
  const guint hash = g_str_hash(mImpl->xml.c_str());
  return std::to_string(hash & 0xffffffu);
}

LocalDevice* LocalService::getParentDev() const { return mImpl->parent; }

LocalDevice* LocalService::getLocalParentDev() const { return mImpl->parent; }

RootDevice* LocalService::getRootDev() const { return mImpl->root; }

RootDevice* LocalService::getLocalRootDev() const { return mImpl->root; }

bool LocalService::sendChangedVars() {
  // Taking and handing on the changes under one lock keeps two concurrent
  // senders' events in the order of their values.
  std::lock_guard<std::mutex> lock(mImpl->binding.mutex);
  VarChanges changes = mImpl->vars.takeChanges();
  if (changes.empty()) {
    return false;
  }
  if (mImpl->binding.sink != nullptr) {
    mImpl->binding.sink->publishChanges(this, std::move(changes));
  }
  return true;
}

bool LocalService::hasSubscribers() const { return mImpl->binding.hasSubscribers(); }

void LocalService::handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* /*request*/) {
  zuna_http::WebResponse notFound(404);
  notFound.addField("Content-Length", "0");
  notFound.addField("Connection", "close");
  socket->send(notFound);
}

bool LocalService::updateServiceParam(std::string key, std::string value, bool /*flag*/) {
  return mImpl->vars.setValue(key, value);
}

Tolvane::EventDispatcher* LocalService::getDispatcher() const { return mImpl->dispatcher.get(); }

LocalService::Binding* LocalService::getBinding() const { return &mImpl->binding; }

}  // namespace zuna_upnp
