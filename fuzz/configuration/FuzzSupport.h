// One configuration management service per fuzzing process, on an in-process
// status store and host platform settings whose files live in a temporary
// directory. The box is in standby, so SetValues answers without waiting for
// a client application.
#pragma once

#include <cstdlib>
#include <functional>
#include <string>

#include "ConfigurationManagement.h"

namespace cmfuzz {

ConfigurationManagementService& service();

// Runs fn on the service dispatcher, where the UPnP stack runs the actions.
void onDispatcher(const std::function<void()>& fn);

// Ends the run when a failing action changed its out argument.
void checkOutArgument(const zuna_upnp::UPnPReturn& result, const std::string& out, const std::string& before);

const char* const kUntouched = "\x01untouched\x02";

}  // namespace cmfuzz
