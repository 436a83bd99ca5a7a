// The device the integration tests publish: a calculator service and a
// service whose one action holds until the test lets it go.
#pragma once

#include <string>

#include "../../unit/upnp/TestServices.h"
#include "HoldGate.h"

namespace upnp_it {

class HoldService : public upnp_test::ExampleService, public chdtest::HoldGate {
 public:
  HoldService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root) : ExampleService(device, root, "Holder", 1) {
    addAction(new zuna_upnp::ActionT0<HoldService>("Hold", this, &HoldService::Hold));
    genSCPDXML();
  }

  zuna_upnp::UPnPReturn Hold() {
    hold(true);
    finished = true;
    return zuna_upnp::UPnPReturn();
  }
};

class IntegrationDevice : public zuna_upnp::RootDevice {
 public:
  IntegrationDevice() {
    setTypeID(zuna_upnp::TypeID("TestDevice", "schemas-example-org", 1, zuna_upnp::TypeID::DEVICE));
    makeURLs();
    makeUDN();
    setStrings("Acme RVU Client TestDevice", "Acme", "VESPARO ABC-42", "ABC", "42");
    setFlags(true, false);
    calculator = new upnp_test::CalculatorService(this, this);
    holder = new HoldService(this, this);
    addService(calculator);
    addService(holder);
    genXMLDefinition();
  }

  upnp_test::CalculatorService* calculator;
  HoldService* holder;
};

constexpr char kDeviceType[] = "urn:schemas-example-org:device:TestDevice:1";
constexpr char kCalculatorType[] = "urn:schemas-example-org:service:Calculator:2";
constexpr char kHolderType[] = "urn:schemas-example-org:service:Holder:1";

}  // namespace upnp_it
