// A UPnP device published by this box.
//
// Contract:
// - The daemon builds its device on the main thread in this order:
//   setTypeID, makeURLs, makeUDN, setStrings, setFlags, addService (each
//   service), genXMLDefinition, then Controller::addRootDevice. Afterwards
//   the device is only read, from any thread (the stack's and the services'),
//   so its getters need no lock as long as nothing is set after publishing.
// - Ownership: the device owns the services added to it and deletes them in
//   its destructor. The daemon's device is reference-counted and lives until
//   the process exits.
// - No operation fails; getters of unset values answer "".
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
  // Makes the unique device name ("uuid:" and a UUID) from the box's identity
  // and the device type: unique per box, so that two boxes made from one
  // image differ (never from the host name alone), and the same after every
  // restart, so that control points recognise the box again. The host stack
  // uses the machine id, else the first MAC address (docs/porting.md).
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
