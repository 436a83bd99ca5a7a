// Test hooks of the host UPnP stack.
#pragma once

#include "zuna_http/WebServer.h"
#include "zuna_upnp/Controller.h"

namespace zuna_upnp::host {

// Makes Controller::getInstance() return controller (not owned); nullptr
// restores the process's own stack.
void setControllerForTest(zuna_upnp::Controller* controller);

// Makes WebServer::getSingleton() return server (not owned); nullptr restores
// the process's own web server.
void setWebServerForTest(zuna_http::WebServer* server);

}  // namespace zuna_upnp::host
