#include "statusstore_host/StatusStoreBus.h"

#include <map>

#include "tolvane/PlatformSettings.h"
#include "tolvane_host/HostPlatformSettings.h"

namespace statusstore {
namespace {

constexpr char kInterfaceXml[] =
    "<node>"
    "  <interface name='org.tolvane.StatusStore1'>"
    "    <method name='SetStatus'><arg name='key' type='s' direction='in'/>"
    "      <arg name='value' type='s' direction='in'/></method>"
    "    <method name='SetStatuses'><arg name='statuses' type='a{ss}' direction='in'/></method>"
    "    <method name='GetStatus'><arg name='key' type='s' direction='in'/>"
    "      <arg name='value' type='s' direction='out'/></method>"
    "    <method name='PostEvent'><arg name='name' type='s' direction='in'/>"
    "      <arg name='value' type='s' direction='in'/><arg name='option' type='i' direction='in'/></method>"
    "    <method name='StartTimer'><arg name='name' type='s' direction='in'/></method>"
    "    <method name='StopTimer'><arg name='name' type='s' direction='in'/></method>"
    "    <method name='PauseTimer'><arg name='name' type='s' direction='in'/></method>"
    "    <method name='ResumeTimer'><arg name='name' type='s' direction='in'/></method>"
    "    <method name='GetTimerElapsed'><arg name='name' type='s' direction='in'/>"
    "      <arg name='seconds' type='t' direction='out'/></method>"
    "    <method name='GetTimerStartTime'><arg name='name' type='s' direction='in'/>"
    "      <arg name='time' type='x' direction='out'/></method>"
    "    <method name='GetCounter'><arg name='name' type='s' direction='in'/>"
    "      <arg name='value' type='u' direction='out'/></method>"
    "    <method name='SetCounter'><arg name='name' type='s' direction='in'/>"
    "      <arg name='value' type='u' direction='in'/></method>"
    "    <signal name='StatusesChanged'><arg name='statuses' type='a{ss}'/></signal>"
    "    <signal name='EventPosted'><arg name='name' type='s'/><arg name='value' type='s'/></signal>"
    "  </interface>"
    "</node>";

std::string addressOfBus(const std::string& bus, GError** error) {
  if (bus == "session" || bus == "system") {
    GBusType type = bus == "session" ? G_BUS_TYPE_SESSION : G_BUS_TYPE_SYSTEM;
    gchar* address = g_dbus_address_get_for_bus_sync(type, nullptr, error);
    std::string result = address != nullptr ? address : "";
    g_free(address);
    return result;
  }
  return bus;
}

}  // namespace

std::string configuredBus() {
  auto* settings = dynamic_cast<Tolvane::host::HostPlatformSettings*>(Tolvane::PlatformSettings::getInstance());
  return settings != nullptr ? settings->getStatusStoreBus() : std::string(kNoBus);
}

GDBusConnection* connectToBus(const std::string& bus, GError** error) {
  if (bus.empty() || bus == kNoBus) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "no bus configured for the status store");
    return nullptr;
  }
  std::string address = addressOfBus(bus, error);
  if (address.empty()) {
    return nullptr;
  }
  auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  return g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, error);
}

GDBusInterfaceInfo* storeInterfaceInfo() {
  // Parsed once and kept for the life of the process.
  static GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterfaceXml, nullptr);
  return g_dbus_node_info_lookup_interface(node, kStoreInterface);
}

std::string toValidUtf8(const std::string& text) {
  if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
    return text;
  }
  gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  std::string result(valid);
  g_free(valid);
  return result;
}

GVariant* statusMapToVariant(const std::map<std::string, std::string>& statuses) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
  for (const auto& [key, value] : statuses) {
    g_variant_builder_add(&builder, "{ss}", toValidUtf8(key).c_str(), toValidUtf8(value).c_str());
  }
  return g_variant_builder_end(&builder);
}

}  // namespace statusstore
