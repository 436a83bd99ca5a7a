#include "zuna_net_host/InterfaceAddresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

namespace zuna::net::host {

std::map<std::string, std::string> currentIPv4Addresses(bool withCarrier) {
  const unsigned wanted = withCarrier ? (IFF_UP | IFF_RUNNING) : IFF_UP;
  std::map<std::string, std::string> addresses;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return addresses;
  }
  for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET || (entry->ifa_flags & wanted) != wanted) {
      continue;
    }
    char text[INET_ADDRSTRLEN] = {};
    const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
    if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) != nullptr) {
      addresses.emplace(entry->ifa_name, text);  // the first address wins
    }
  }
  freeifaddrs(list);
  return addresses;
}

}  // namespace zuna::net::host
