// The GLib thread as the UPnP stack needs it.
#pragma once

#include <memory>

#include "zuna_http_host/MainLoop.h"

namespace zuna_upnp {

// The process's GLib thread (shared with the web server), with GUPnP's and
// GSSDP's messages going to the daemon's log and the stack's HTTP clients
// talking to the network directly. Call before the first GUPnP object exists.
std::shared_ptr<zuna_http::host::MainLoop> acquireStackLoop();

}  // namespace zuna_upnp
