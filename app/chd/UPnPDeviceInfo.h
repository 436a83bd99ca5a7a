// Identity of the manageable device, filled by the control object.
#pragma once

#include <string>

struct UPnPDeviceInfo {
  std::string name;
  std::string manufacturer;
  std::string description;
  std::string model;
  std::string manufacturerId;
  std::string clientId;
};
