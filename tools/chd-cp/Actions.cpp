#include "Actions.h"

#include "Failure.h"
#include "MainLoop.h"

namespace chdcp {
namespace {

struct PendingCall {
  bool finished = false;
  GUPnPServiceProxyAction* action = nullptr;
  GError* error = nullptr;
};

void onCallFinished(GObject* proxy, GAsyncResult* result, gpointer data) {
  auto* call = static_cast<PendingCall*>(data);
  call->action = gupnp_service_proxy_call_action_finish(GUPNP_SERVICE_PROXY(proxy), result, &call->error);
  call->finished = true;
}

GList* inputValues(const std::vector<ActionInput>& inputs, GList** names) {
  GList* values = nullptr;
  for (const ActionInput& input : inputs) {
    auto* value = g_new0(GValue, 1);
    if (input.isNumber) {
      g_value_init(value, G_TYPE_UINT);
      g_value_set_uint(value, input.number);
    } else {
      g_value_init(value, G_TYPE_STRING);
      g_value_set_string(value, input.text.c_str());
    }
    values = g_list_append(values, value);
    *names = g_list_append(*names, const_cast<char*>(input.name.c_str()));
  }
  return values;
}

void freeValue(gpointer value) {
  g_value_unset(static_cast<GValue*>(value));
  g_free(value);
}

std::string errorText(const std::string& action, const GError* error) {
  if (error->domain == GUPNP_CONTROL_ERROR) {
    return action + " failed: UPnP error " + std::to_string(error->code) + ": " + error->message;
  }
  return action + " failed: " + error->message;
}

std::map<std::string, std::string> results(GUPnPServiceProxyAction* action, const std::string& actionName,
                                           const std::vector<std::string>& outputs) {
  GList* names = nullptr;
  GList* types = nullptr;
  for (const std::string& output : outputs) {
    names = g_list_append(names, const_cast<char*>(output.c_str()));
    types = g_list_append(types, GSIZE_TO_POINTER(G_TYPE_STRING));
  }
  GList* values = nullptr;
  GError* error = nullptr;
  const bool ok = gupnp_service_proxy_action_get_result_list(action, names, types, &values, &error);
  g_list_free(names);
  g_list_free(types);
  if (!ok) {
    const std::string text = errorText(actionName, error);
    // A fault is the box's answer; anything else means it did not really answer.
    const ExitStatus status = error->domain == GUPNP_CONTROL_ERROR ? kExitBoxError : kExitNoBox;
    g_clear_error(&error);
    throw Failure(status, text);
  }
  std::map<std::string, std::string> answer;
  GList* value = values;
  for (const std::string& output : outputs) {
    const char* text = value != nullptr ? g_value_get_string(static_cast<GValue*>(value->data)) : nullptr;
    answer[output] = text != nullptr ? text : "";
    value = value != nullptr ? value->next : nullptr;
  }
  g_list_free_full(values, freeValue);
  return answer;
}

}  // namespace

const char* serviceName(Service service) {
  return service == Service::kBasicManagement ? "BasicManagement" : "ConfigurationManagement";
}

const char* serviceType(Service service) {
  return service == Service::kBasicManagement ? "urn:schemas-upnp-org:service:BasicManagement:1"
                                              : "urn:schemas-upnp-org:service:ConfigurationManagement:1";
}

GUPnPServiceProxy* Actions::proxy(Service service) const {
  GUPnPServiceInfo* info = gupnp_device_info_get_service(GUPNP_DEVICE_INFO(mBox.proxy), serviceType(service));
  if (info == nullptr) {
    throw Failure(kExitBoxError, std::string("the box has no ") + serviceName(service) + " service");
  }
  return GUPNP_SERVICE_PROXY(info);
}

std::map<std::string, std::string> Actions::call(Service service, const std::string& action,
                                                 const std::vector<ActionInput>& inputs,
                                                 const std::vector<std::string>& outputs) {
  GList* names = nullptr;
  GList* values = inputValues(inputs, &names);
  GUPnPServiceProxyAction* request = gupnp_service_proxy_action_new_from_list(action.c_str(), names, values);
  g_list_free(names);
  g_list_free_full(values, freeValue);

  GUPnPServiceProxy* serviceProxy = proxy(service);
  GCancellable* cancellable = g_cancellable_new();
  PendingCall call;
  gupnp_service_proxy_call_action_async(serviceProxy, request, cancellable, onCallFinished, &call);
  if (!runUntil([&call] { return call.finished; }, mTimeout)) {
    g_cancellable_cancel(cancellable);
    runUntil([&call] { return call.finished; }, mTimeout);
  }
  g_object_unref(cancellable);
  g_object_unref(serviceProxy);
  if (call.action == nullptr) {
    const bool cancelled = call.error == nullptr || g_error_matches(call.error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
    const std::string text = cancelled
                                 ? action + ": the box did not answer within " + std::to_string(int(mTimeout)) + " s"
                                 : errorText(action, call.error);
    // A SOAP fault is the box's answer; anything else means it did not really answer.
    const ExitStatus status = !cancelled && call.error->domain == GUPNP_CONTROL_ERROR ? kExitBoxError : kExitNoBox;
    g_clear_error(&call.error);
    gupnp_service_proxy_action_unref(request);
    throw Failure(status, text);
  }
  try {
    auto answer = results(request, action, outputs);
    gupnp_service_proxy_action_unref(request);
    return answer;
  } catch (...) {
    gupnp_service_proxy_action_unref(request);
    throw;
  }
}

std::string Actions::get(Service service, const std::string& action, const std::string& output) {
  return call(service, action, {}, {output})[output];
}

}  // namespace chdcp
