// Builds the UPnP description documents of devices and services with libxml2.
#pragma once

#include <string>

namespace zuna_upnp {

class LocalDevice;
class LocalService;

std::string buildDeviceDescription(const LocalDevice& device);
std::string buildServiceDescription(const LocalService& service);

}  // namespace zuna_upnp
