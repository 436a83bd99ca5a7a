#include "StatusUpdateAgents.h"

#include <utility>

namespace statusstore {

StatusChangedAgent::StatusChangedAgent(IStatusUpdateListener* listener, StatusMap statuses)
    : Tolvane::EventAgent(listener), mListener(listener), mStatuses(std::move(statuses)) {}

// An agent runs once, so the listener may take the map over.
void StatusChangedAgent::run() { mListener->notifyStatusChanged(std::move(mStatuses)); }

EventPostedAgent::EventPostedAgent(IStatusUpdateListener* listener, std::string name, std::string value)
    : Tolvane::EventAgent(listener), mListener(listener), mName(std::move(name)), mValue(std::move(value)) {}

void EventPostedAgent::run() { mListener->notifyEventPosted(std::move(mName), std::move(mValue)); }

}  // namespace statusstore
