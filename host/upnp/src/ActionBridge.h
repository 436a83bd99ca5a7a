// Hands the actions that control points invoke from the GLib thread to the
// service's own dispatcher, and their answers back to the GLib thread, where
// GUPnP writes them.
#pragma once

#include <libgupnp/gupnp.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "InterfaceStack.h"
#include "zuna_http_host/MainLoop.h"

namespace zuna_upnp {

class ActionBridge : public ActionSink, public std::enable_shared_from_this<ActionBridge> {
 public:
  // GLib thread: answers come back on loop, the one the stacks run on.
  void replyOn(std::weak_ptr<zuna_http::host::MainLoop> loop);

  // GLib thread (ActionSink).
  void actionInvoked(InterfaceStack* stack, LocalService* service, Action* action,
                     GUPnPServiceAction* request) override;
  void stackClosing(InterfaceStack* stack) override;

  // GLib thread: the stacks are gone; requests still open are forgotten.
  void forgetPending();

 private:
  struct PendingAction {
    GUPnPServiceAction* request;
    InterfaceStack* stack;
    Action* action;
  };

  void completeAction(uint64_t id, const UPnPReturn& result, const std::vector<std::string>& outputs);

  // GLib thread only.
  std::weak_ptr<zuna_http::host::MainLoop> mReplyLoop;
  std::map<uint64_t, PendingAction> mPending;
  uint64_t mLastActionId = 0;
};

}  // namespace zuna_upnp
