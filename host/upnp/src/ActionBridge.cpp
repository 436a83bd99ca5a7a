#include "ActionBridge.h"

#include <string>
#include <utility>
#include <vector>

#include "FunctionAgent.h"
#include "tolvane/EventThread.h"

namespace zuna_upnp {

namespace {

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

void answer(GUPnPServiceAction* request, const Action& action, const UPnPReturn& result,
            const std::vector<std::string>& outputs) {
  if (!result.isSuccess()) {
    const guint code = result.code > 0 ? static_cast<guint>(result.code) : guint{GUPNP_CONTROL_ERROR_ACTION_FAILED};
    const std::string text = result.description.empty() ? "Action Failed" : result.description;
    gupnp_service_action_return_error(request, code, text.c_str());
    return;
  }
  const std::vector<ActionArgument>& names = action.getOutArgs();
  for (size_t i = 0; i < names.size(); ++i) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    // GUPnP escapes the value into its answer at once; a whole-tree answer
    // is 11 KB that need not be copied first.
    g_value_set_static_string(&value, i < outputs.size() ? outputs[i].c_str() : "");
    gupnp_service_action_set_value(request, names[i].name.c_str(), &value);
    g_value_unset(&value);
  }
  gupnp_service_action_return_success(request);
}

}  // namespace

void ActionBridge::replyOn(std::weak_ptr<zuna_http::host::MainLoop> loop) { mReplyLoop = std::move(loop); }

void ActionBridge::actionInvoked(InterfaceStack* stack, LocalService* service, Action* action,
                                 GUPnPServiceAction* request) {
  std::vector<std::string> inputs;
  if (!readInputs(*action, request, inputs)) {
    gupnp_service_action_return_error(request, GUPNP_CONTROL_ERROR_INVALID_ARGS, "Invalid Args");
    return;
  }
  const uint64_t id = ++mLastActionId;
  mPending.emplace(id, PendingAction{request, stack, action});
  std::weak_ptr<ActionBridge> weak = shared_from_this();
  // Shutdown may already have let go of the loop while this request was
  // read: the answer then has nowhere to go, and the request is answered
  // when its interface stack closes.
  std::weak_ptr<zuna_http::host::MainLoop> replyLoop = mReplyLoop;
  // The handler runs on the service's own dispatcher, so a slow one holds
  // up only its service; the answer goes back to the GLib thread.
  Tolvane::SmartPtr<Tolvane::EventAgent> agent(new FunctionAgent(service, [weak, replyLoop, action, id, inputs] {
    std::vector<std::string> outputs;
    UPnPReturn result = action->invoke(inputs, outputs);
    std::shared_ptr<zuna_http::host::MainLoop> loop = replyLoop.lock();
    if (!loop) {
      return;
    }
    loop->post([weak, id, result = std::move(result), outputs = std::move(outputs)] {
      if (std::shared_ptr<ActionBridge> bridge = weak.lock()) {
        bridge->completeAction(id, result, outputs);
      }
    });
  }));
  service->getDispatcher()->post(agent);
}

void ActionBridge::completeAction(uint64_t id, const UPnPReturn& result, const std::vector<std::string>& outputs) {
  auto found = mPending.find(id);
  if (found == mPending.end()) {
    return;  // already answered when its interface went away
  }
  PendingAction action = found->second;
  mPending.erase(found);
  answer(action.request, *action.action, result, outputs);
}

void ActionBridge::stackClosing(InterfaceStack* stack) {
  for (auto it = mPending.begin(); it != mPending.end();) {
    if (it->second.stack == stack) {
      gupnp_service_action_return_error(it->second.request, GUPNP_CONTROL_ERROR_ACTION_FAILED, "Action Failed");
      it = mPending.erase(it);
    } else {
      ++it;
    }
  }
}

void ActionBridge::forgetPending() { mPending.clear(); }

}  // namespace zuna_upnp
