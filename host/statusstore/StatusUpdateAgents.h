// Agents that carry one status change or one event to one listener. Their
// receiver is the IStatusUpdateListener pointer itself, so that a component
// can drop what is still queued with removeAgentsByReceiver on that pointer.
#pragma once

#include <memory>
#include <string>

#include "status/StatusManager.h"
#include "statusstore_host/LocalStatusManager.h"
#include "tolvane/EventThread.h"

namespace statusstore {

class StatusChangedAgent : public Tolvane::EventAgent {
 public:
  // The change is shared with the store and the other listeners' agents.
  StatusChangedAgent(IStatusUpdateListener* listener, std::shared_ptr<const SharedStatusMap> statuses);
  void run() override;

 private:
  IStatusUpdateListener* mListener;
  std::shared_ptr<const SharedStatusMap> mStatuses;
};

struct PostedEvent {
  std::string name;
  std::string value;
};

class EventPostedAgent : public Tolvane::EventAgent {
 public:
  // The event is shared with the other listeners' agents.
  EventPostedAgent(IStatusUpdateListener* listener, std::shared_ptr<const PostedEvent> event);
  void run() override;

 private:
  IStatusUpdateListener* mListener;
  std::shared_ptr<const PostedEvent> mEvent;
};

}  // namespace statusstore
