// The box's IPv4 interfaces as the kernel reports them now.
#pragma once

#include <map>
#include <string>

namespace zuna::net::host {

// Interface name -> its first IPv4 address, for interfaces that are up (and
// also have a working link, when withCarrier is set).
std::map<std::string, std::string> currentIPv4Addresses(bool withCarrier = false);

}  // namespace zuna::net::host
