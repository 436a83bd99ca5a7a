#include <gtest/gtest.h>

#include "TestServices.h"
#include "XmlQuery.h"

namespace {

using upnp_test::XmlQuery;

constexpr char kDeviceNs[] = "urn:schemas-upnp-org:device-1-0";
constexpr char kServiceNs[] = "urn:schemas-upnp-org:service-1-0";

class SecondService : public upnp_test::ExampleService {
 public:
  SecondService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root)
      : ExampleService(device, root, "Second", 1) {
    genSCPDXML();
  }
};

TEST(DeviceDescription, IsWellFormedAndCarriesEveryField) {
  upnp_test::TestDevice device;
  device.addService(new SecondService(&device, &device));
  device.genXMLDefinition();
  XmlQuery xml(device.getXML(), kDeviceNs);
  ASSERT_TRUE(xml.parsed()) << device.getXML();
  EXPECT_EQ(xml.one("/u:root/u:specVersion/u:major"), "1");
  EXPECT_EQ(xml.one("/u:root/u:specVersion/u:minor"), "0");
  EXPECT_EQ(xml.one("/u:root/u:device/u:deviceType"), "urn:schemas-example-org:device:TestDevice:1");
  EXPECT_EQ(xml.one("/u:root/u:device/u:friendlyName"), "Friendly & <Name>");
  EXPECT_EQ(xml.one("/u:root/u:device/u:manufacturer"), "Acme");
  EXPECT_EQ(xml.one("/u:root/u:device/u:modelDescription"), "Model description");
  EXPECT_EQ(xml.one("/u:root/u:device/u:modelName"), "Model name");
  EXPECT_EQ(xml.one("/u:root/u:device/u:modelNumber"), "Model number");
  EXPECT_EQ(xml.one("/u:root/u:device/u:UDN"), device.getUDN());
  EXPECT_TRUE(xml.all("/u:root/u:device/u:presentationURL").empty());

  const std::string services = "/u:root/u:device/u:serviceList/u:service";
  EXPECT_EQ(xml.all(services + "/u:serviceType"),
            (std::vector<std::string>{"urn:schemas-example-org:service:Calculator:2",
                                      "urn:schemas-example-org:service:Second:1"}));
  EXPECT_EQ(xml.all(services + "/u:serviceId"),
            (std::vector<std::string>{"urn:upnp-org:serviceId:Calculator", "urn:upnp-org:serviceId:Second"}));
  EXPECT_EQ(xml.all(services + "/u:SCPDURL"),
            (std::vector<std::string>{"/TestDevice/Calculator/scpd.xml", "/TestDevice/Second/scpd.xml"}));
  EXPECT_EQ(xml.all(services + "/u:controlURL"),
            (std::vector<std::string>{"/TestDevice/Calculator/control", "/TestDevice/Second/control"}));
  EXPECT_EQ(xml.all(services + "/u:eventSubURL"),
            (std::vector<std::string>{"/TestDevice/Calculator/event", "/TestDevice/Second/event"}));
}

TEST(DeviceDescription, PresentationFlagAddsAPresentationUrl) {
  upnp_test::TestDevice device;
  device.setFlags(true, true);
  device.genXMLDefinition();
  XmlQuery xml(device.getXML(), kDeviceNs);
  EXPECT_EQ(xml.one("/u:root/u:device/u:presentationURL"), device.getDescriptionURL());
  EXPECT_TRUE(device.getPresentation());
  EXPECT_TRUE(device.getAdvertise());
}

TEST(DeviceDescription, ManageableDeviceStrings) {
  zuna_upnp::RootDevice device;
  device.setTypeID(zuna_upnp::TypeID("ManageableDevice", "schemas-upnp-org", 1, zuna_upnp::TypeID::DEVICE));
  device.makeURLs();
  device.makeUDN();
  device.setStrings("Acme RVU Client ManageableDevice", "Acme", "VESPARO ABC-42", "ABC", "42");
  device.genXMLDefinition();
  XmlQuery xml(device.getXML(), kDeviceNs);
  EXPECT_EQ(xml.one("/u:root/u:device/u:deviceType"), "urn:schemas-upnp-org:device:ManageableDevice:1");
  EXPECT_EQ(xml.one("/u:root/u:device/u:friendlyName"), "Acme RVU Client ManageableDevice");
  EXPECT_EQ(device.getDescriptionURL(), "/ManageableDevice/description.xml");
  EXPECT_TRUE(device.getIsRoot());
  EXPECT_EQ(device.getServiceCount(), 0u);
  EXPECT_EQ(device.getService(0), nullptr);
}

TEST(DeviceIdentity, UdnIsStableForTheSameHostAndType) {
  upnp_test::TestDevice first;
  upnp_test::TestDevice second;
  upnp_test::TestDevice other("OtherDevice");
  EXPECT_EQ(first.getUDN(), second.getUDN());
  EXPECT_NE(first.getUDN(), other.getUDN());
  const std::string& udn = first.getUDN();
  ASSERT_EQ(udn.size(), 41u);  // "uuid:" and 36 characters
  EXPECT_EQ(udn.substr(0, 5), "uuid:");
  EXPECT_EQ(udn[5 + 8], '-');
  EXPECT_EQ(udn[5 + 14], '5');  // name-based version
}

TEST(LocalDeviceKind, PlainDeviceIsNotRoot) {
  zuna_upnp::LocalDevice device;
  EXPECT_FALSE(device.getIsRoot());
}

TEST(ServiceDescription, ListsEveryActionAndVariable) {
  upnp_test::TestDevice device;
  XmlQuery xml(device.calculator->getXML(), kServiceNs);
  ASSERT_TRUE(xml.parsed()) << device.calculator->getXML();
  EXPECT_EQ(xml.one("/u:scpd/u:specVersion/u:major"), "1");
  EXPECT_EQ(xml.one("/u:scpd/u:specVersion/u:minor"), "0");
  EXPECT_EQ(xml.all("/u:scpd/u:actionList/u:action/u:name"), (std::vector<std::string>{"Add", "Reset", "GetTotal"}));

  const std::string add = "/u:scpd/u:actionList/u:action[u:name='Add']/u:argumentList/u:argument";
  EXPECT_EQ(xml.all(add + "/u:name"), (std::vector<std::string>{"Text", "Number", "Result"}));
  EXPECT_EQ(xml.all(add + "/u:direction"), (std::vector<std::string>{"in", "in", "out"}));
  EXPECT_EQ(xml.all(add + "/u:relatedStateVariable"),
            (std::vector<std::string>{"A_ARG_TYPE_Text", "A_ARG_TYPE_Number", "A_ARG_TYPE_Text"}));
  EXPECT_TRUE(xml.all("/u:scpd/u:actionList/u:action[u:name='Reset']/u:argumentList").empty());
  const std::string total = "/u:scpd/u:actionList/u:action[u:name='GetTotal']/u:argumentList/u:argument";
  EXPECT_EQ(xml.all(total + "/u:direction"), std::vector<std::string>{"out"});
  EXPECT_EQ(xml.all(total + "/u:relatedStateVariable"), std::vector<std::string>{"Total"});

  const std::string table = "/u:scpd/u:serviceStateTable/u:stateVariable";
  EXPECT_EQ(xml.all(table + "/u:name"),
            (std::vector<std::string>{"A_ARG_TYPE_Text", "A_ARG_TYPE_Number", "Total", "Flag"}));
  EXPECT_EQ(xml.all(table + "/u:dataType"), (std::vector<std::string>{"string", "ui4", "ui4", "boolean"}));
  EXPECT_EQ(xml.all(table + "/u:defaultValue"), (std::vector<std::string>{"", "0", "7", "false"}));
  EXPECT_EQ(xml.all(table + "/@sendEvents"), (std::vector<std::string>{"no", "no", "yes", "yes"}));
}

TEST(ServiceDescription, VersionElementComesFromTheService) {
  upnp_test::TestDevice device;
  device.calculator->setServiceSpec(1, 1);
  device.calculator->genSCPDXML();
  XmlQuery xml(device.calculator->getXML(), kServiceNs);
  EXPECT_EQ(xml.one("/u:scpd/u:specVersion/u:minor"), "1");
  EXPECT_EQ(device.calculator->getServiceMajorSpec(), 1);
  EXPECT_EQ(device.calculator->getServiceMinorSpec(), 1);
}

TEST(ServiceDescription, EmptyServiceIsStillWellFormed) {
  upnp_test::TestDevice device;
  SecondService second(&device, &device);
  XmlQuery xml(second.getXML(), kServiceNs);
  ASSERT_TRUE(xml.parsed());
  EXPECT_EQ(xml.all("/u:scpd/u:actionList").size(), 1u);
  EXPECT_TRUE(xml.all("/u:scpd/u:actionList/u:action").empty());
  EXPECT_EQ(xml.all("/u:scpd/u:serviceStateTable").size(), 1u);
}

}  // namespace
