#include "StatusUpdateAgents.h"

#include <utility>

namespace statusstore {

StatusChangedAgent::StatusChangedAgent(IStatusUpdateListener* listener, std::shared_ptr<const SharedStatusMap> statuses)
    : Tolvane::EventAgent(listener), mListener(listener), mStatuses(std::move(statuses)) {}

// The listener's own copy exists only from here on: a queued agent costs the
// same whatever the size of the values.
void StatusChangedAgent::run() {
  StatusMap copy = toStatusMap(*mStatuses);
  mStatuses.reset();
  mListener->notifyStatusChanged(std::move(copy));
}

EventPostedAgent::EventPostedAgent(IStatusUpdateListener* listener, std::shared_ptr<const PostedEvent> event)
    : Tolvane::EventAgent(listener), mListener(listener), mEvent(std::move(event)) {}

void EventPostedAgent::run() {
  std::string name = mEvent->name;
  std::string value = mEvent->value;
  mEvent.reset();
  mListener->notifyEventPosted(std::move(name), std::move(value));
}

}  // namespace statusstore
