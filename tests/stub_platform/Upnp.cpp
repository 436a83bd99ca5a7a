// The UPnP stack, web server and network monitor of the stub platform: devices
// are recorded, not published; actions run when a test invokes them.
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <sstream>

#include "StubPlatform.h"
#include "tolvane/EventThread.h"
#include "zuna_http/WebServer.h"
#include "zuna_net/NetworkManager.h"
#include "zuna_upnp/Action.h"
#include "zuna_upnp/Controller.h"
#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp/LocalService.h"

namespace zuna_upnp {

// -- state variables.
struct Vars::Impl {
  mutable std::mutex mutex;
  std::vector<Var> vars;
  std::map<std::string, std::string> values;
  std::set<std::string> changed;
};
Vars::Vars() : mImpl(std::make_unique<Impl>()) {}
Vars::~Vars() = default;
bool Vars::add(const Var& var) {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  if (mImpl->values.count(var.getName()) > 0) {
    return false;
  }
  mImpl->vars.push_back(var);
  mImpl->values[var.getName()] = var.getDefault();
  return true;
}
bool Vars::has(const std::string& name) const {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  return mImpl->values.count(name) > 0;
}
std::vector<Var> Vars::getAll() const {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  return mImpl->vars;
}
bool Vars::setValue(const std::string& name, const std::string& value) {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  auto it = mImpl->values.find(name);
  if (it == mImpl->values.end()) {
    return false;
  }
  it->second = value;
  for (const Var& var : mImpl->vars) {
    if (var.getName() == name && var.isEvented()) {
      mImpl->changed.insert(name);
    }
  }
  return true;
}
std::string Vars::getValue(const std::string& name) const {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  auto it = mImpl->values.find(name);
  return it != mImpl->values.end() ? it->second : std::string();
}
bool Vars::hasChanges() const {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  return !mImpl->changed.empty();
}
std::vector<std::pair<std::string, std::string>> Vars::takeChanges() {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  std::vector<std::pair<std::string, std::string>> changes;
  for (const Var& var : mImpl->vars) {
    if (mImpl->changed.count(var.getName()) > 0) {
      changes.emplace_back(var.getName(), mImpl->values[var.getName()]);
    }
  }
  mImpl->changed.clear();
  return changes;
}
std::vector<std::pair<std::string, std::string>> Vars::getEventedValues() const {
  const std::lock_guard<std::mutex> guard(mImpl->mutex);
  std::vector<std::pair<std::string, std::string>> values;
  for (const Var& var : mImpl->vars) {
    if (var.isEvented()) {
      values.emplace_back(var.getName(), mImpl->values.at(var.getName()));
    }
  }
  return values;
}

// -- actions.
namespace {
std::vector<ActionArgument> parseArguments(const std::string& declaration) {
  std::vector<ActionArgument> arguments;
  std::istringstream words(declaration);
  std::string word;
  while (words >> word) {
    const size_t colon = word.find(':');
    arguments.push_back(
        ActionArgument{word.substr(0, colon), colon == std::string::npos ? "" : word.substr(colon + 1)});
  }
  return arguments;
}
}  // namespace

Action::Action(std::string name) : mName(std::move(name)) {}
Action::~Action() = default;
void Action::setInArgs(const std::string& declaration) { mInArgs = parseArguments(declaration); }
void Action::setOutArgs(const std::string& declaration) { mOutArgs = parseArguments(declaration); }

bool Action::checkTypes(const std::string& signature) const {
  const std::vector<std::string> types = parameterTypes();
  if (types.empty()) {
    return true;
  }
  std::string expected;
  size_t outs = 0;
  for (const std::string& type : types) {
    expected += (expected.empty() ? "" : ", ") + type;
    outs += type.find('&') != std::string::npos ? 1 : 0;
  }
  return expected == signature && outs == mOutArgs.size() && types.size() - outs == mInArgs.size();
}

UPnPReturn Action::invoke(const std::vector<std::string>& inputs, std::vector<std::string>& outputs) {
  const std::vector<std::string> types = parameterTypes();
  std::vector<std::string> args;
  size_t nextInput = 0;
  for (const std::string& type : types) {
    const bool out = type.find('&') != std::string::npos;
    args.push_back(!out && nextInput < inputs.size() ? inputs[nextInput++] : std::string());
  }
  UPnPReturn result = call(args);
  outputs.clear();
  for (size_t i = 0; i < types.size(); ++i) {
    if (types[i].find('&') != std::string::npos) {
      outputs.push_back(args[i]);
    }
  }
  return result;
}

namespace detail {
bool ArgType<unsigned>::parse(const std::string& text, unsigned& out) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10) {
    return false;
  }
  const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
  if (value > 0xffffffffULL) {
    return false;
  }
  out = static_cast<unsigned>(value);
  return true;
}
UPnPReturn invalidArgs() { return UPnPReturn(1, "Invalid Args", 402); }
}  // namespace detail

// -- devices.
struct LocalDevice::Impl {
  TypeID typeId{std::string(), std::string(), 1, TypeID::DEVICE};
  std::string udn;
  std::string url;
  std::string strings[5];
  bool advertise = true;
  bool presentation = false;
  std::vector<LocalService*> services;
  std::string xml;
};
LocalDevice::LocalDevice() : mImpl(std::make_unique<Impl>()) {}
LocalDevice::~LocalDevice() {
  for (LocalService* service : mImpl->services) {
    delete service;
  }
}
void LocalDevice::setTypeID(const TypeID& typeId) { mImpl->typeId = typeId; }
const TypeID& LocalDevice::getTypeID() const { return mImpl->typeId; }
void LocalDevice::makeURLs() { mImpl->url = "/" + mImpl->typeId.getName() + "/description.xml"; }
// The stub has one box: a fixed identity stands for its machine id.
void LocalDevice::makeUDN() { mImpl->udn = "uuid:00000000-0000-5000-8000-000000000001"; }
const std::string& LocalDevice::getUDN() const { return mImpl->udn; }
std::string LocalDevice::getDescriptionURL() const { return mImpl->url; }
void LocalDevice::setStrings(const std::string& friendlyName, const std::string& manufacturer,
                             const std::string& modelDescription, const std::string& modelName,
                             const std::string& modelNumber) {
  mImpl->strings[0] = friendlyName;
  mImpl->strings[1] = manufacturer;
  mImpl->strings[2] = modelDescription;
  mImpl->strings[3] = modelName;
  mImpl->strings[4] = modelNumber;
}
const std::string& LocalDevice::getFriendlyName() const { return mImpl->strings[0]; }
const std::string& LocalDevice::getManufacturer() const { return mImpl->strings[1]; }
const std::string& LocalDevice::getModelDescription() const { return mImpl->strings[2]; }
const std::string& LocalDevice::getModelName() const { return mImpl->strings[3]; }
const std::string& LocalDevice::getModelNumber() const { return mImpl->strings[4]; }
void LocalDevice::setFlags(bool advertise, bool presentation) {
  mImpl->advertise = advertise;
  mImpl->presentation = presentation;
}
bool LocalDevice::getAdvertise() const { return mImpl->advertise; }
bool LocalDevice::getPresentation() const { return mImpl->presentation; }
void LocalDevice::addService(LocalService* service) {
  if (service != nullptr) {
    mImpl->services.push_back(service);
  }
}
size_t LocalDevice::getServiceCount() const { return mImpl->services.size(); }
LocalService* LocalDevice::getService(size_t index) const {
  return index < mImpl->services.size() ? mImpl->services[index] : nullptr;
}
void LocalDevice::genXMLDefinition() {
  mImpl->xml = "<root><device><deviceType>" + mImpl->typeId.toString() + "</deviceType></device></root>";
}
const std::string& LocalDevice::getXML() const { return mImpl->xml; }
bool LocalDevice::getIsRoot() const { return false; }
bool RootDevice::getIsRoot() const { return true; }

// -- services: one event thread each, as the stack's contract says.
struct LocalService::Binding {};
struct LocalService::Impl {
  LocalDevice* parent;
  RootDevice* root;
  TypeID typeId;
  std::string serviceId;
  int major = 1;
  int minor = 0;
  Vars vars;
  std::vector<std::unique_ptr<Action>> actions;
  std::string xml;
  Tolvane::EventThread thread{"StubService"};
};
LocalService::LocalService(LocalDevice* parent, RootDevice* root) : mImpl(std::make_unique<Impl>()) {
  mImpl->parent = parent;
  mImpl->root = root;
}
LocalService::~LocalService() { mImpl->thread.shutdown(); }
void LocalService::setTypeID(const TypeID& typeId) { mImpl->typeId = typeId; }
const TypeID& LocalService::getTypeID() const { return mImpl->typeId; }
std::string LocalService::getServiceTypeIDString() const { return mImpl->typeId.toString(); }
const std::string& LocalService::getName() const { return mImpl->typeId.getName(); }
void LocalService::makeURLs() {}
void LocalService::makeServiceID() { mImpl->serviceId = "urn:upnp-org:serviceId:" + getName(); }
void LocalService::setServiceSpec(int major, int minor) {
  mImpl->major = major;
  mImpl->minor = minor;
}
int LocalService::getServiceMajorSpec() const { return mImpl->major; }
int LocalService::getServiceMinorSpec() const { return mImpl->minor; }
Vars& LocalService::getVars() { return mImpl->vars; }
const Vars& LocalService::getVars() const { return mImpl->vars; }
bool LocalService::addAction(Action* action) {
  if (action == nullptr || findAction(action->getName()) != nullptr) {
    delete action;
    return false;
  }
  mImpl->actions.emplace_back(action);
  return true;
}
const std::vector<std::unique_ptr<Action>>& LocalService::getActions() const { return mImpl->actions; }
Action* LocalService::findAction(const std::string& name) const {
  for (const auto& action : mImpl->actions) {
    if (action->getName() == name) {
      return action.get();
    }
  }
  return nullptr;
}
void LocalService::genSCPDXML() { mImpl->xml = "<scpd/>"; }
const std::string& LocalService::getXML() const { return mImpl->xml; }
std::string LocalService::getXmlns() const { return getServiceTypeIDString(); }
std::string LocalService::getServiceID() const { return mImpl->serviceId; }
std::string LocalService::getControlURL() const { return "/" + getName() + "/control"; }
std::string LocalService::getEventURL() const { return "/" + getName() + "/event"; }
std::string LocalService::getSCPDURL() const { return "/" + getName() + "/scpd.xml"; }
std::string LocalService::getConfigId() const { return "1"; }
LocalDevice* LocalService::getParentDev() const { return mImpl->parent; }
LocalDevice* LocalService::getLocalParentDev() const { return mImpl->parent; }
RootDevice* LocalService::getRootDev() const { return mImpl->root; }
RootDevice* LocalService::getLocalRootDev() const { return mImpl->root; }
// Nobody subscribes to a stub: changes are taken and dropped.
bool LocalService::sendChangedVars() { return !mImpl->vars.takeChanges().empty(); }
bool LocalService::hasSubscribers() const { return false; }
void LocalService::handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* /*request*/) {
  socket->send(zuna_http::WebResponse(404));
  socket->close();
}
bool LocalService::updateServiceParam(std::string key, std::string value, bool /*flag*/) {
  return mImpl->vars.setValue(key, value);
}
Tolvane::EventDispatcher* LocalService::getDispatcher() const { return &mImpl->thread; }
LocalService::Binding* LocalService::getBinding() const { return nullptr; }

// -- the controller records what the daemon publishes.
namespace {
class StubController : public Controller {
 public:
  bool init(zuna::net::NetworkManager* /*monitor*/, Tolvane::StringVector /*interfaces*/,
            Tolvane::StringVector /*serverNames*/) override {
    return true;
  }
  bool addRootDevice(RootDevice* device) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mDevices.push_back(device);
    return true;
  }
  bool registerWebProvider(zuna_http::WebServiceProvider* /*provider*/, const std::string& /*method*/,
                           const std::string& /*path*/) override {
    return true;
  }
  void unregisterWebProvider(zuna_http::WebServiceProvider* /*provider*/) override {}
  std::string getServerString() override { return "Stub/1.0 UPnP/1.0 chd-stub/1.0"; }
  void shutdown() override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mShutDown = true;
  }
  std::vector<RootDevice*> devices() {
    const std::lock_guard<std::mutex> guard(mMutex);
    return mDevices;
  }
  bool shutDown() {
    const std::lock_guard<std::mutex> guard(mMutex);
    return mShutDown;
  }

 private:
  std::mutex mMutex;
  std::vector<RootDevice*> mDevices;
  bool mShutDown = false;
};

StubController& controller() {
  static StubController* const instance = new StubController;
  return *instance;
}
}  // namespace

Controller* Controller::getInstance() { return &controller(); }

}  // namespace zuna_upnp

std::vector<zuna_upnp::RootDevice*> stub::publishedDevices() { return zuna_upnp::controller().devices(); }
bool stub::controllerShutDown() { return zuna_upnp::controller().shutDown(); }

// -- the web server: providers are accepted and never called.
namespace zuna_http {

bool WebHeaderBase::send(ReaderWriter* stream) const {
  std::string head = getFirstLine() + "\r\n";
  for (const auto& field : mFields) {
    head += field.first + ": " + field.second + "\r\n";
  }
  head += "\r\n";
  return stream->write(head.data(), head.size()) == static_cast<int64_t>(head.size());
}

std::string WebResponse::getFirstLine() const {
  return "HTTP/1.1 " + std::to_string(mStatus) + (mStatus == 200 ? " OK" : mStatus == 404 ? " Not Found" : " Error");
}

namespace {
class StubWebServer : public WebServer {
 public:
  bool registerProvider(WebServiceProvider* /*provider*/, Tolvane::ServerSocket* /*socket*/, Method /*method*/,
                        const std::string& /*path*/) override {
    return true;
  }
  void unregisterSocket(Tolvane::ServerSocket* /*socket*/) override {}
  void unregisterProvider(WebServiceProvider* /*provider*/) override {}
};
}  // namespace

WebServer* WebServer::getSingleton() {
  static StubWebServer* const server = new StubWebServer;
  return server;
}

WebServer::Method WebServer::getMethod(const std::string& name) {
  if (name == "GET") {
    return METHOD_GET;
  }
  if (name == "HEAD") {
    return METHOD_HEAD;
  }
  return name == "POST" ? METHOD_POST : METHOD_UNKNOWN;
}

}  // namespace zuna_http

// -- the network monitor: loopback, always up.
namespace zuna::net {
struct NetworkManager::Impl {};
NetworkManager::NetworkManager() : mImpl(std::make_unique<Impl>()) {}
NetworkManager::~NetworkManager() = default;
bool NetworkManager::init() { return true; }
bool NetworkManager::start() { return true; }
bool NetworkManager::stop() { return true; }
Tolvane::StringVector NetworkManager::getActiveInterfaces() { return {"lo"}; }
void NetworkManager::addObserver(Observer* /*observer*/) {}
void NetworkManager::removeObserver(Observer* /*observer*/) {}
}  // namespace zuna::net
