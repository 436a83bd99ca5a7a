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

EventPostedAgent::EventPostedAgent(IStatusUpdateListener* listener, std::string name, std::string value)
    : Tolvane::EventAgent(listener), mListener(listener), mName(std::move(name)), mValue(std::move(value)) {}

void EventPostedAgent::run() { mListener->notifyEventPosted(std::move(mName), std::move(mValue)); }

}  // namespace statusstore
