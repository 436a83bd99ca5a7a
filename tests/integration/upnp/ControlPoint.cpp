#include "ControlPoint.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

namespace upnp_it {

ControlPoint::ControlPoint(const std::string& interfaceName, const std::string& deviceType)
    : mMainContext(g_main_context_new()) {
  g_main_context_push_thread_default(mMainContext);
  GError* error = nullptr;
  mContext = gupnp_context_new_full(interfaceName.c_str(), nullptr, 0, GSSDP_UDA_VERSION_1_0, &error);
  if (mContext == nullptr) {
    ADD_FAILURE() << "control point context: " << error->message;
    g_error_free(error);
    return;
  }
  g_signal_connect(gupnp_context_get_server(mContext), "request-finished", G_CALLBACK(onRequestFinished), this);
  g_signal_connect(gupnp_context_get_server(mContext), "request-started", G_CALLBACK(onRequestStarted), this);
  g_signal_connect(gupnp_context_get_session(mContext), "request-queued", G_CALLBACK(onRequestQueued), this);
  g_signal_connect(gupnp_context_get_session(mContext), "request-unqueued", G_CALLBACK(onRequestUnqueued), this);
  mControlPoint = gupnp_control_point_new(mContext, deviceType.c_str());
  g_signal_connect(mControlPoint, "device-proxy-available", G_CALLBACK(onDeviceAvailable), this);
  g_signal_connect(mControlPoint, "device-proxy-unavailable", G_CALLBACK(onDeviceUnavailable), this);
  gssdp_resource_browser_set_active(GSSDP_RESOURCE_BROWSER(mControlPoint), TRUE);
  mSession = soup_session_new_with_options("timeout", 10, nullptr);
}

ControlPoint::~ControlPoint() {
  if (mControlPoint != nullptr) {
    g_signal_handlers_disconnect_by_data(mControlPoint, this);
  }
  for (GUPnPServiceProxy* service : mServices) {
    g_object_unref(service);
  }
  for (auto& device : mDevices) {
    g_object_unref(device.second);
  }
  mDevices.clear();
  if (mSession != nullptr) {
    g_object_unref(mSession);
  }
  if (mControlPoint != nullptr) {
    g_object_unref(mControlPoint);
  }
  if (mContext != nullptr) {
    g_signal_handlers_disconnect_by_data(gupnp_context_get_session(mContext), this);
    g_signal_handlers_disconnect_by_data(gupnp_context_get_server(mContext), this);
    g_object_unref(mContext);
  }
  while (g_main_context_iteration(mMainContext, FALSE)) {
  }
  g_main_context_pop_thread_default(mMainContext);
  g_main_context_unref(mMainContext);
}

void ControlPoint::onDeviceAvailable(GUPnPControlPoint* /*cp*/, GUPnPDeviceProxy* proxy, gpointer data) {
  auto* self = static_cast<ControlPoint*>(data);
  const std::string udn = gupnp_device_info_get_udn(GUPNP_DEVICE_INFO(proxy));
  auto existing = self->mDevices.find(udn);
  if (existing != self->mDevices.end()) {
    g_object_unref(existing->second);
  }
  self->mDevices[udn] = GUPNP_DEVICE_PROXY(g_object_ref(proxy));
}

void ControlPoint::onDeviceUnavailable(GUPnPControlPoint* /*cp*/, GUPnPDeviceProxy* proxy, gpointer data) {
  auto* self = static_cast<ControlPoint*>(data);
  auto existing = self->mDevices.find(gupnp_device_info_get_udn(GUPNP_DEVICE_INFO(proxy)));
  if (existing != self->mDevices.end()) {
    g_object_unref(existing->second);
    self->mDevices.erase(existing);
  }
}

void ControlPoint::onRequestFinished(SoupServer* /*server*/, SoupServerMessage* msg, gpointer data) {
  if (g_strcmp0(soup_server_message_get_method(msg), "NOTIFY") == 0) {
    ++static_cast<ControlPoint*>(data)->mNotifyCount;
  }
}

void ControlPoint::onRequestStarted(SoupServer* /*server*/, SoupServerMessage* msg, gpointer data) {
  g_signal_connect(msg, "got-headers", G_CALLBACK(onNotifyHeaders), data);
}

void ControlPoint::onNotifyHeaders(SoupServerMessage* msg, gpointer data) {
  auto* self = static_cast<ControlPoint*>(data);
  if (self->mSubscribesInFlight > 0 && g_strcmp0(soup_server_message_get_method(msg), "NOTIFY") == 0) {
    soup_server_message_pause(msg);
    self->mHeldNotifies.push_back(SOUP_SERVER_MESSAGE(g_object_ref(msg)));
  }
}

void ControlPoint::onRequestQueued(SoupSession* /*session*/, SoupMessage* msg, gpointer data) {
  if (g_strcmp0(soup_message_get_method(msg), "SUBSCRIBE") == 0) {
    ++static_cast<ControlPoint*>(data)->mSubscribesInFlight;
  }
}

void ControlPoint::onRequestUnqueued(SoupSession* /*session*/, SoupMessage* msg, gpointer data) {
  auto* self = static_cast<ControlPoint*>(data);
  if (g_strcmp0(soup_message_get_method(msg), "SUBSCRIBE") == 0 && --self->mSubscribesInFlight == 0) {
    // After the proxy's own handling of the answer, which runs next.
    GSource* idle = g_idle_source_new();
    g_source_set_priority(idle, G_PRIORITY_LOW);
    g_source_set_callback(idle, releaseHeldNotifies, self, nullptr);
    g_source_attach(idle, self->mMainContext);
    g_source_unref(idle);
  }
}

gboolean ControlPoint::releaseHeldNotifies(gpointer data) {
  auto* self = static_cast<ControlPoint*>(data);
  for (SoupServerMessage* msg : self->mHeldNotifies) {
    soup_server_message_unpause(msg);
    g_object_unref(msg);
  }
  self->mHeldNotifies.clear();
  return G_SOURCE_REMOVE;
}

bool ControlPoint::runUntil(const std::function<bool()>& done, int timeoutMs) {
  const gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(timeoutMs) * 1000;
  while (!done()) {
    if (g_get_monotonic_time() > deadline) {
      return false;
    }
    if (!g_main_context_iteration(mMainContext, FALSE)) {
      g_usleep(2000);
    }
  }
  return true;
}

GUPnPDeviceProxy* ControlPoint::waitForDevice(const std::string& udn, int timeoutMs) {
  runUntil([this, &udn] { return mDevices.count(udn) != 0; }, timeoutMs);
  auto found = mDevices.find(udn);
  return found == mDevices.end() ? nullptr : found->second;
}

bool ControlPoint::deviceGone(const std::string& udn) const { return mDevices.count(udn) == 0; }

GUPnPServiceProxy* ControlPoint::service(GUPnPDeviceProxy* device, const std::string& type) {
  GUPnPServiceInfo* info = gupnp_device_info_get_service(GUPNP_DEVICE_INFO(device), type.c_str());
  if (info == nullptr) {
    return nullptr;
  }
  mServices.push_back(GUPNP_SERVICE_PROXY(info));
  return mServices.back();
}

ActionResult ControlPoint::invoke(GUPnPServiceProxy* service, const std::string& name,
                                  const std::vector<std::pair<std::string, std::string>>& inputs,
                                  const std::vector<std::string>& outputNames) {
  GList* names = nullptr;
  GList* values = nullptr;
  std::vector<GValue*> owned;
  for (const auto& input : inputs) {
    GValue* value = g_new0(GValue, 1);
    g_value_init(value, G_TYPE_STRING);
    g_value_set_string(value, input.second.c_str());
    owned.push_back(value);
    names = g_list_append(names, const_cast<char*>(input.first.c_str()));
    values = g_list_append(values, value);
  }
  GUPnPServiceProxyAction* action = gupnp_service_proxy_action_new_from_list(name.c_str(), names, values);
  g_list_free(names);
  g_list_free(values);
  for (GValue* value : owned) {
    g_value_unset(value);
    g_free(value);
  }

  ActionResult result;
  GError* error = nullptr;
  if (gupnp_service_proxy_call_action(service, action, nullptr, &error) != nullptr) {
    for (const std::string& output : outputNames) {
      char* text = nullptr;
      if (!gupnp_service_proxy_action_get_result(action, &error, output.c_str(), G_TYPE_STRING, &text, nullptr)) {
        break;
      }
      result.outputs[output] = text != nullptr ? text : "";
      g_free(text);
    }
  }
  if (error != nullptr) {
    result.errorCode = error->code;
    result.errorMessage = error->message;
    g_error_free(error);
  } else {
    result.ok = true;
  }
  gupnp_service_proxy_action_unref(action);
  return result;
}

HttpResult ControlPoint::get(const std::string& url) {
  HttpResult result;
  SoupMessage* msg = soup_message_new("GET", url.c_str());
  if (msg == nullptr) {
    return result;
  }
  GError* error = nullptr;
  GBytes* body = soup_session_send_and_read(mSession, msg, nullptr, &error);
  if (body != nullptr) {
    gsize size = 0;
    const char* data = static_cast<const char*>(g_bytes_get_data(body, &size));
    result.body.assign(data != nullptr ? data : "", size);
    g_bytes_unref(body);
  }
  g_clear_error(&error);
  result.status = soup_message_get_status(msg);
  const char* connection = soup_message_headers_get_one(soup_message_get_response_headers(msg), "Connection");
  result.connectionHeader = connection != nullptr ? connection : "";
  g_object_unref(msg);
  return result;
}

EventSubscriber::EventSubscriber(ControlPoint& /*controlPoint*/) {
  // Created on the control point's thread: its context is the default here.
  mServer = soup_server_new(nullptr, nullptr);
  soup_server_add_handler(mServer, "/events", onNotify, this, nullptr);
  GSocketAddress* address = g_inet_socket_address_new_from_string("127.0.0.1", 0);
  GError* error = nullptr;
  if (!soup_server_listen(mServer, address, SoupServerListenOptions(0), &error)) {
    ADD_FAILURE() << "event listener: " << error->message;
    g_error_free(error);
  }
  g_object_unref(address);
  GSList* uris = soup_server_get_uris(mServer);
  if (uris != nullptr) {
    mCallback = "<http://127.0.0.1:" + std::to_string(g_uri_get_port(static_cast<GUri*>(uris->data))) + "/events>";
  }
  g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
  mSession = soup_session_new_with_options("timeout", 10, nullptr);
}

EventSubscriber::~EventSubscriber() {
  g_object_unref(mSession);
  soup_server_disconnect(mServer);
  g_object_unref(mServer);
}

void EventSubscriber::onNotify(SoupServer* /*server*/, SoupServerMessage* msg, const char* /*path*/,
                               GHashTable* /*query*/, gpointer data) {
  auto* self = static_cast<EventSubscriber*>(data);
  SoupMessageHeaders* headers = soup_server_message_get_request_headers(msg);
  Event event;
  const char* sid = soup_message_headers_get_one(headers, "SID");
  const char* seq = soup_message_headers_get_one(headers, "SEQ");
  event.sid = sid != nullptr ? sid : "";
  event.seq = seq != nullptr ? static_cast<unsigned>(g_ascii_strtoull(seq, nullptr, 10)) : 9999;
  SoupMessageBody* body = soup_server_message_get_request_body(msg);
  xmlDoc* doc = xmlReadMemory(body->data, static_cast<int>(body->length), nullptr, nullptr, XML_PARSE_NONET);
  xmlNode* root = doc != nullptr ? xmlDocGetRootElement(doc) : nullptr;
  for (xmlNode* property = root != nullptr ? root->children : nullptr; property != nullptr; property = property->next) {
    for (xmlNode* variable = property->children; variable != nullptr; variable = variable->next) {
      if (variable->type == XML_ELEMENT_NODE) {
        xmlChar* content = xmlNodeGetContent(variable);
        event.values[reinterpret_cast<const char*>(variable->name)] = reinterpret_cast<const char*>(content);
        xmlFree(content);
      }
    }
  }
  xmlFreeDoc(doc);
  self->mEvents.push_back(event);
  soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
}

std::string EventSubscriber::subscribe(const std::string& eventUrl, unsigned& status) {
  SoupMessage* msg = soup_message_new("SUBSCRIBE", eventUrl.c_str());
  SoupMessageHeaders* headers = soup_message_get_request_headers(msg);
  soup_message_headers_append(headers, "Callback", mCallback.c_str());
  soup_message_headers_append(headers, "NT", "upnp:event");
  soup_message_headers_append(headers, "Timeout", "Second-300");
  GBytes* body = soup_session_send_and_read(mSession, msg, nullptr, nullptr);
  if (body != nullptr) {
    g_bytes_unref(body);
  }
  status = soup_message_get_status(msg);
  const char* sid = soup_message_headers_get_one(soup_message_get_response_headers(msg), "SID");
  std::string result = sid != nullptr ? sid : "";
  g_object_unref(msg);
  return result;
}

unsigned EventSubscriber::unsubscribe(const std::string& eventUrl, const std::string& sid) {
  SoupMessage* msg = soup_message_new("UNSUBSCRIBE", eventUrl.c_str());
  soup_message_headers_append(soup_message_get_request_headers(msg), "SID", sid.c_str());
  GBytes* body = soup_session_send_and_read(mSession, msg, nullptr, nullptr);
  if (body != nullptr) {
    g_bytes_unref(body);
  }
  const unsigned status = soup_message_get_status(msg);
  g_object_unref(msg);
  return status;
}

unsigned rawGetStatus(const std::string& url) {
  const char* argv[] = {"curl",         "--path-as-is", "-s", "-o",        "/dev/null", "-w",
                        "%{http_code}", "--max-time",   "10", url.c_str(), nullptr};
  char* out = nullptr;
  gint status = 0;
  if (!g_spawn_sync(nullptr, const_cast<char**>(argv), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out, nullptr,
                    &status, nullptr)) {
    return 0;
  }
  const unsigned code = static_cast<unsigned>(g_ascii_strtoull(out, nullptr, 10));
  g_free(out);
  return code;
}

}  // namespace upnp_it
