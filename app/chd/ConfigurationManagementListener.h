// Asked by the configuration management service for a diagnostics blob now.
#pragma once

class ConfigurationManagementListener {
 public:
  virtual bool genChdDataBlob() = 0;
  virtual ~ConfigurationManagementListener() = default;
};
