// Services and devices shared by the UPnP unit tests.
#pragma once

#include <atomic>
#include <string>

#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp/LocalService.h"

namespace upnp_test {

// A service of the example.org domain with its type, URLs and id in place; the
// subclass adds its variables and actions, then generates its SCPD.
class ExampleService : public zuna_upnp::LocalService {
 protected:
  ExampleService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root, const std::string& type, int version)
      : LocalService(device, root) {
    setTypeID(zuna_upnp::TypeID(type, "schemas-example-org", version, zuna_upnp::TypeID::SERVICE));
    makeURLs();
    makeServiceID();
  }
};

class CalculatorService : public ExampleService {
 public:
  CalculatorService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root)
      : ExampleService(device, root, "Calculator", 2) {
    getVars().add(zuna_upnp::Var("A_ARG_TYPE_Text", "string", "", false));
    getVars().add(zuna_upnp::Var("A_ARG_TYPE_Number", "ui4", "0", false));
    getVars().add(zuna_upnp::Var("Total", "ui4", "7", true));
    getVars().add(zuna_upnp::Var("Flag", "boolean", "false", true));
    auto* add = new zuna_upnp::ActionT3<CalculatorService, std::string, unsigned, std::string&>(
        "Add", this, &CalculatorService::Add);
    add->setInArgs("Text:A_ARG_TYPE_Text Number:A_ARG_TYPE_Number");
    add->setOutArgs("Result:A_ARG_TYPE_Text");
    addAction(add);
    auto* reset = new zuna_upnp::ActionT0<CalculatorService>("Reset", this, &CalculatorService::Reset);
    addAction(reset);
    auto* total = new zuna_upnp::ActionT1<CalculatorService, unsigned&>("GetTotal", this, &CalculatorService::GetTotal);
    total->setOutArgs("Total:Total");
    addAction(total);
    genSCPDXML();
  }

  zuna_upnp::UPnPReturn Add(std::string text, unsigned number, std::string& result) {
    ++calls;
    result = text + "+" + std::to_string(number);
    return zuna_upnp::UPnPReturn();
  }
  zuna_upnp::UPnPReturn Reset() {
    ++calls;
    return zuna_upnp::UPnPReturn(1, "Reset refused", 701);
  }
  zuna_upnp::UPnPReturn GetTotal(unsigned& total) {
    ++calls;
    total = 4294967295u;
    return zuna_upnp::UPnPReturn();
  }

  std::atomic<int> calls{0};
};

class TestDevice : public zuna_upnp::RootDevice {
 public:
  explicit TestDevice(const std::string& typeName = "TestDevice") {
    setTypeID(zuna_upnp::TypeID(typeName, "schemas-example-org", 1, zuna_upnp::TypeID::DEVICE));
    makeURLs();
    makeUDN();
    setStrings("Friendly & <Name>", "Acme", "Model description", "Model name", "Model number");
    setFlags(true, false);
    calculator = new CalculatorService(this, this);
    addService(calculator);
    genXMLDefinition();
  }

  CalculatorService* calculator;
};

}  // namespace upnp_test
