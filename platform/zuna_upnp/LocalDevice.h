// A UPnP device published by this box.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "zuna_upnp/LocalService.h"
#include "zuna_upnp/Types.h"

namespace zuna_upnp {

class LocalDevice {
 public:
  LocalDevice();
  virtual ~LocalDevice();  // deletes the services added to it
  LocalDevice(const LocalDevice&) = delete;
  LocalDevice& operator=(const LocalDevice&) = delete;

  void setTypeID(const TypeID& typeId);
  const TypeID& getTypeID() const;
  // The description URL path, derived from the type id.
  void makeURLs();
  // A unique device name that stays the same across restarts of the same
  // device type on the same host.
  void makeUDN();
  const std::string& getUDN() const;
  std::string getDescriptionURL() const;

  // The five description strings, in the stack's order: friendly name,
  // manufacturer, model description, model name, model number.
  void setStrings(const std::string& friendlyName, const std::string& manufacturer, const std::string& modelDescription,
                  const std::string& modelName, const std::string& modelNumber);
  const std::string& getFriendlyName() const;
  const std::string& getManufacturer() const;
  const std::string& getModelDescription() const;
  const std::string& getModelName() const;
  const std::string& getModelNumber() const;

  // advertise: announce the device with SSDP; presentation: publish a
  // presentation page.
  void setFlags(bool advertise, bool presentation);
  bool getAdvertise() const;
  bool getPresentation() const;

  // Appends a service (owned from now on); the order is the description's.
  void addService(LocalService* service);
  size_t getServiceCount() const;
  LocalService* getService(size_t index) const;

  // Builds the device description document.
  void genXMLDefinition();
  const std::string& getXML() const;

  virtual bool getIsRoot() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

class RootDevice : public LocalDevice {
 public:
  bool getIsRoot() const override;
};

}  // namespace zuna_upnp
