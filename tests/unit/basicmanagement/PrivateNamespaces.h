// Each test process of this area runs in a network namespace and on a /tmp of
// its own when it may (as root): the service binds port 80 and reads
// /tmp/syslogUrisPath.txt, neither of which may touch the host's.
#pragma once

namespace bmtest {

// True when this process got its private network namespace and /tmp.
bool hasPrivateNamespaces();

}  // namespace bmtest
