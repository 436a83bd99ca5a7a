// Test hook of the host UPnP stack.
#pragma once

#include "zuna_upnp/Controller.h"

namespace zuna_upnp::host {

// Makes Controller::getInstance() return controller (not owned); nullptr
// restores the process's own stack.
void setControllerForTest(zuna_upnp::Controller* controller);

}  // namespace zuna_upnp::host
