// Host-only controls of the framework logging, for tests and tools.
#pragma once

#include <string>

namespace Tolvane::host {

// Reads CHD_LOG_LEVEL and CHD_LOG_STDERR again (they are otherwise read once,
// on first use).
void reloadLoggingEnvironment();

// The threshold that applies to messages of this source file (as its
// registration passed it, or the default), after CHD_LOG_LEVEL; -1 when the
// file's messages are switched off.
int getLoggingThreshold(const char* file);

// True when a system logger accepts connections on this socket (normally
// /dev/log); logging_enable_syslog keeps standard error when it does not.
bool syslogReachable(const std::string& socketPath);

// The socket that logging_enable_syslog checks instead of /dev/log.
void setSyslogSocketForTest(const std::string& socketPath);

}  // namespace Tolvane::host
