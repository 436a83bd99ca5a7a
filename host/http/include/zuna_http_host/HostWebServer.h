// Test hook of the host web server.
#pragma once

#include "zuna_http/WebServer.h"

namespace zuna_http::host {

// Makes WebServer::getSingleton() return server (not owned); nullptr restores
// the process's own web server.
void setWebServerForTest(WebServer* server);

}  // namespace zuna_http::host
