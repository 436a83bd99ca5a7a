#include "InterfaceStack.h"

#include <libxml/parser.h>

#include <cstdlib>

#include "tolvane/Logging.h"
#include "zuna_http_host/SoupRouting.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_upnp {

namespace {

// GUPnP exports its description directory at "/". Descriptions come from
// memory here, so it gets a directory that cannot exist (nobody can create
// entries under /proc/self).
constexpr char kNoDescriptionDirectory[] = "/proc/self/no-upnp-description";

struct ActionRoute {
  InterfaceStack* stack;
  LocalService* service;
  Action* action;
};

// Without a configured port GUPnP listens for HTTP on the number that GSSDP
// drew for its UDP search socket, and that TCP port may well be taken (by
// any client connection's ephemeral port): the stack would then never come
// up. So the stack asks the kernel for a free TCP port and gives it to both;
// a port taken in between (or taken for UDP) costs another attempt.
constexpr int kPortAttempts = 8;

guint16 freeTcpPort(GInetAddress* address) {
  GSocket* probe =
      g_socket_new(g_inet_address_get_family(address), G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, nullptr);
  if (probe == nullptr) {
    return 0;
  }
  guint16 port = 0;
  GSocketAddress* any = g_inet_socket_address_new(address, 0);
  if (g_socket_bind(probe, any, FALSE, nullptr)) {
    GSocketAddress* bound = g_socket_get_local_address(probe, nullptr);
    if (bound != nullptr) {
      port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
      g_object_unref(bound);
    }
  }
  g_object_unref(any);
  g_socket_close(probe, nullptr);
  g_object_unref(probe);
  return port;
}

GUPnPContext* newContext(const std::string& interface, GInetAddress* address, int configuredPort) {
  GError* error = nullptr;
  for (int attempt = 1; attempt <= kPortAttempts; ++attempt) {
    const guint16 port = configuredPort != 0 ? static_cast<guint16>(configuredPort) : freeTcpPort(address);
    GUPnPContext* context = gupnp_context_new_full(interface.c_str(), address, port, GSSDP_UDA_VERSION_1_0, &error);
    if (context != nullptr) {
      return context;
    }
    const bool retry = configuredPort == 0 && attempt < kPortAttempts;
    TL_LOG(retry ? 2 : 0, "No UPnP stack on [%s] port [%u]: %s%s", interface.c_str(), port, error->message,
           retry ? "; trying another port" : "");
    g_clear_error(&error);
    if (!retry) {
      break;
    }
  }
  return nullptr;
}

void deleteActionRoute(gpointer data, GClosure* /*closure*/) { delete static_cast<ActionRoute*>(data); }

void onActionInvoked(GUPnPService* /*service*/, GUPnPServiceAction* request, gpointer data) {
  const ActionRoute* route = static_cast<const ActionRoute*>(data);
  route->stack->sink().actionInvoked(route->stack, route->service, route->action, request);
}

// New subscribers get every evented variable's current value from here.
void onQueryVariable(GUPnPService* /*service*/, const char* variable, GValue* value, gpointer data) {
  const Vars& vars = static_cast<LocalService*>(data)->getVars();
  if (variable == nullptr || !vars.has(variable)) {
    return;
  }
  g_value_init(value, G_TYPE_STRING);
  g_value_set_string(value, vars.getValue(variable).c_str());
}

struct Document {
  std::string text;
  std::string server;
};

void deleteDocument(gpointer data) { delete static_cast<Document*>(data); }

void serveDocumentRequest(SoupServer* /*server*/, SoupServerMessage* msg, const char* /*path*/, GHashTable* /*query*/,
                          gpointer data) {
  const Document* document = static_cast<const Document*>(data);
  const char* method = soup_server_message_get_method(msg);
  if (method != SOUP_METHOD_GET && method != SOUP_METHOD_HEAD) {
    soup_server_message_set_status(msg, SOUP_STATUS_METHOD_NOT_ALLOWED, nullptr);
    return;
  }
  soup_message_headers_append(soup_server_message_get_response_headers(msg), "Server", document->server.c_str());
  soup_server_message_set_response(msg, "text/xml; charset=\"utf-8\"", SOUP_MEMORY_COPY, document->text.data(),
                                   document->text.size());
  soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
}

std::string uriPath(const char* uri) {
  GUri* parsed = g_uri_parse(uri, static_cast<GUriFlags>(SOUP_HTTP_URI_FLAGS), nullptr);
  if (parsed == nullptr) {
    return std::string();
  }
  std::string path = g_uri_get_path(parsed);
  g_uri_unref(parsed);
  return path;
}

}  // namespace

InterfaceStack::InterfaceStack(ActionSink& sink, std::string interfaceName, std::string address)
    : mSink(sink), mName(std::move(interfaceName)), mAddress(std::move(address)) {}

InterfaceStack::~InterfaceStack() {
  mSink.stackClosing(this);
  for (Published& published : mPublished) {
    unpublish(published);
  }
  if (mServer != nullptr) {
    mSubscriptions.reset();
    for (const auto& route : mRoutes) {
      zuna_http::host::removeProviderRoute(mServer, route.first);
    }
    // Stop listening now, whoever still holds a reference to the context.
    mAcceptors.clear();
    soup_server_disconnect(mServer);
  }
  if (mContext != nullptr) {
    g_object_unref(mContext);
  }
  TL_LOG(5, "UPnP stack on [%s] stopped", mName.c_str());
}

bool InterfaceStack::start(const StackSettings& settings) {
  mSettings = settings;
  GInetAddress* address = g_inet_address_new_from_string(mAddress.c_str());
  mContext = newContext(mName, address, settings.port);
  g_object_unref(address);
  if (mContext == nullptr) {
    return false;
  }
  gssdp_client_set_server_id(GSSDP_CLIENT(mContext), settings.serverString.c_str());
  // The context's HTTP client fetches each new service's own description
  // from this very server. The process's default resolver is direct already
  // (useDirectConnections, which also covers GUPnP's private clients for
  // events); no resolver at all here keeps GIO from even loading its proxy
  // modules for this fetch at every start.
  soup_session_set_proxy_resolver(gupnp_context_get_session(mContext), nullptr);
  mServer = gupnp_context_get_server(mContext);
  if (mServer == nullptr) {
    TL_LOG(0, "No HTTP server on [%s] [%s] port [%d]", mName.c_str(), mAddress.c_str(), settings.port);
    return false;
  }
  // GUPnP keeps the server's URI from its first question; ask it before the
  // listening sockets move to our acceptors.
  const guint port = gupnp_context_get_port(mContext);
  mAcceptors = zuna_http::host::SoupAcceptor::takeOver(mServer);
  if (mAcceptors.empty()) {
    TL_LOG(0, "No HTTP listener on [%s] [%s]", mName.c_str(), mAddress.c_str());
    return false;
  }
  zuna_http::host::answerEscapingPathsWithNotFound(mServer);
  zuna_http::host::skipUserAgentGuesses(mServer);
  mSubscriptions = std::make_unique<SubscriptionPolicy>(mServer, mAddress, port);
  TL_LOG(5, "UPnP stack on [%s] [%s] port [%u]", mName.c_str(), mAddress.c_str(), port);
  return true;
}

void InterfaceStack::serveDocument(const std::string& path, const std::string& document) {
  if (path.empty()) {
    return;
  }
  soup_server_add_handler(mServer, path.c_str(), serveDocumentRequest, new Document{document, mSettings.serverString},
                          deleteDocument);
}

bool InterfaceStack::publish(RootDevice* device) {
  if (device->getXML().empty()) {
    device->genXMLDefinition();
  }
  const std::string& xml = device->getXML();
  xmlDoc* doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, XML_PARSE_NONET);
  if (doc == nullptr) {
    TL_LOG(0, "Description of [%s] does not parse", device->getUDN().c_str());
    return false;
  }
  GUPnPXMLDoc* description = gupnp_xml_doc_new(doc);
  GError* error = nullptr;
  GUPnPRootDevice* root = gupnp_root_device_new_full(mContext, gupnp_resource_factory_get_default(), description,
                                                     "description.xml", kNoDescriptionDirectory, &error);
  g_object_unref(description);
  if (root == nullptr) {
    TL_LOG(0, "Cannot publish [%s] on [%s]: %s", device->getUDN().c_str(), mName.c_str(), error->message);
    g_error_free(error);
    return false;
  }
  // Our handlers replace the ones GUPnP put on the (missing) files.
  serveDocument(uriPath(gupnp_device_info_get_location(GUPNP_DEVICE_INFO(root))), xml);
  serveDocument(device->getDescriptionURL(), xml);
  for (size_t i = 0; i < device->getServiceCount(); ++i) {
    LocalService* service = device->getService(i);
    if (service->getXML().empty()) {
      service->genSCPDXML();
    }
    serveDocument(service->getSCPDURL(), service->getXML());
  }
  mPublished.push_back(Published{device, root, {}});
  bindServices(mPublished.back());
  gssdp_resource_group_set_message_delay(gupnp_root_device_get_ssdp_resource_group(root), mSettings.messageDelayMs);
  gupnp_root_device_set_available(root, device->getAdvertise() ? TRUE : FALSE);
  TL_LOG(5, "Published [%s] at [%s]", device->getUDN().c_str(),
         gupnp_device_info_get_location(GUPNP_DEVICE_INFO(root)));
  return true;
}

bool InterfaceStack::bindServices(Published& published) {
  GList* infos = gupnp_device_info_list_services(GUPNP_DEVICE_INFO(published.root));
  for (GList* item = infos; item != nullptr; item = item->next) {
    GUPnPServiceInfo* info = GUPNP_SERVICE_INFO(item->data);
    char* id = gupnp_service_info_get_id(info);
    LocalService* match = nullptr;
    for (size_t i = 0; id != nullptr && i < published.device->getServiceCount(); ++i) {
      if (published.device->getService(i)->getServiceID() == id) {
        match = published.device->getService(i);
      }
    }
    g_free(id);
    if (match == nullptr) {
      g_object_unref(info);
      continue;
    }
    published.endpoints.push_back(Endpoint{match, GUPNP_SERVICE(info)});
    bindActions(published.endpoints.back());
    mSubscriptions->watch(match, match->getEventURL());
  }
  g_list_free(infos);
  return true;
}

void InterfaceStack::bindActions(const Endpoint& endpoint) {
  // A handler on plain "action-invoked" is never asked: GUPnP looks for one
  // connected to the action's own detail.
  for (const std::unique_ptr<Action>& action : endpoint.service->getActions()) {
    const std::string signal = "action-invoked::" + action->getName();
    g_signal_connect_data(endpoint.gupnpService, signal.c_str(), G_CALLBACK(onActionInvoked),
                          new ActionRoute{this, endpoint.service, action.get()}, deleteActionRoute, GConnectFlags(0));
  }
  g_signal_connect(endpoint.gupnpService, "query-variable", G_CALLBACK(onQueryVariable), endpoint.service);
}

void InterfaceStack::unpublish(Published& published) {
  for (const Endpoint& endpoint : published.endpoints) {
    g_signal_handlers_disconnect_matched(endpoint.gupnpService, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr,
                                         reinterpret_cast<gpointer>(onActionInvoked), nullptr);
    g_signal_handlers_disconnect_matched(endpoint.gupnpService, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr,
                                         reinterpret_cast<gpointer>(onQueryVariable), nullptr);
    mSubscriptions->forget(endpoint.service);
    g_object_unref(endpoint.gupnpService);
  }
  published.endpoints.clear();
  // Still available, the device's resource group sends a byebye for every
  // resource as it goes, after any alives still queued, all at once. Made
  // unavailable first, GSSDP would pace them through its queue and drop
  // those still queued (on a loaded box, most of them).
  g_object_unref(published.root);
  published.root = nullptr;
}

void InterfaceStack::addRoute(zuna_http::WebServiceProvider* provider, const std::string& path) {
  mRoutes[path] = provider;
  zuna_http::host::addProviderRoute(
      mServer, new zuna_http::host::ProviderRoute{provider, zuna_http::WebServer::METHOD_GET, path, true});
}

void InterfaceStack::removeRoutes(zuna_http::WebServiceProvider* provider) {
  for (auto it = mRoutes.begin(); it != mRoutes.end();) {
    if (it->second == provider) {
      zuna_http::host::removeProviderRoute(mServer, it->first);
      it = mRoutes.erase(it);
    } else {
      ++it;
    }
  }
}

void InterfaceStack::notify(LocalService* service, const VarChanges& changes) {
  for (const Published& published : mPublished) {
    for (const Endpoint& endpoint : published.endpoints) {
      if (endpoint.service != service) {
        continue;
      }
      // Frozen, the changes leave as one property set.
      gupnp_service_freeze_notify(endpoint.gupnpService);
      for (const auto& change : changes) {
        GValue value = G_VALUE_INIT;
        g_value_init(&value, G_TYPE_STRING);
        g_value_set_string(&value, change.second.c_str());
        gupnp_service_notify_value(endpoint.gupnpService, change.first.c_str(), &value);
        g_value_unset(&value);
      }
      gupnp_service_thaw_notify(endpoint.gupnpService);
    }
  }
}

void InterfaceStack::detachFromNetwork() {
  // Queued alives and the byebyes sent while the devices are taken down
  // would only fail on an interface that is gone.
  g_object_set(mContext, "active", FALSE, nullptr);
}

std::string InterfaceStack::location(RootDevice* device) const {
  for (const Published& published : mPublished) {
    if (published.device == device) {
      const char* location = gupnp_device_info_get_location(GUPNP_DEVICE_INFO(published.root));
      return location != nullptr ? location : "";
    }
  }
  return std::string();
}

}  // namespace zuna_upnp
