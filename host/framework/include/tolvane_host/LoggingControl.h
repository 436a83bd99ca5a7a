// Host-only controls of the framework logging, for tests and tools.
#pragma once

namespace Tolvane::host {

// Reads CHD_LOG_LEVEL and CHD_LOG_STDERR again (they are otherwise read once,
// on first use).
void reloadLoggingEnvironment();

// The threshold that applies to messages of this source file (as its
// registration passed it, or the default), after CHD_LOG_LEVEL; -1 when the
// file's messages are switched off.
int getLoggingThreshold(const char* file);

}  // namespace Tolvane::host
