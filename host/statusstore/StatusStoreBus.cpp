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

// Values received over the bus are valid UTF-8 strings already, and go out
// again as the very same variant.
class VariantStatusValue : public StatusValue {
 public:
  explicit VariantStatusValue(GVariant* string) : mString(string) {}
  ~VariantStatusValue() override { g_variant_unref(mString); }
  VariantStatusValue(const VariantStatusValue&) = delete;
  VariantStatusValue& operator=(const VariantStatusValue&) = delete;

  std::string_view text() const override {
    gsize length = 0;
    const gchar* text = g_variant_get_string(mString, &length);
    return {text, length};
  }
  GVariant* variant() const { return mString; }

 private:
  GVariant* const mString;
};

void releaseSharedValue(gpointer value) { delete static_cast<SharedStatusValue*>(value); }

// A string variant over the value's own bytes (and their terminating nul),
// which stay alive as long as the variant does.
GVariant* variantSharingBytes(const SharedStatusValue& value) {
  const std::string_view text = value->text();
  GBytes* bytes =
      g_bytes_new_with_free_func(text.data(), text.size() + 1, releaseSharedValue, new SharedStatusValue(value));
  GVariant* variant = g_variant_new_from_bytes(G_VARIANT_TYPE_STRING, bytes, TRUE);
  g_bytes_unref(bytes);
  return variant;
}

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

SharedStatusValue statusValueFromVariant(GVariant* string) { return std::make_shared<VariantStatusValue>(string); }

GVariant* statusValueToVariant(const SharedStatusValue& value) {
  if (const auto* received = dynamic_cast<const VariantStatusValue*>(value.get())) {
    return g_variant_ref(received->variant());
  }
  const std::string_view text = value->text();
  // Also false for an embedded nul, which a D-Bus string cannot carry.
  if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
    return g_variant_ref_sink(variantSharingBytes(value));
  }
  return g_variant_ref_sink(g_variant_new_string(toValidUtf8(std::string(text)).c_str()));
}

GVariant* sharedStatusMapToVariant(const SharedStatusMap& statuses) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
  for (const auto& [key, value] : statuses) {
    GVariant* text = statusValueToVariant(value);
    g_variant_builder_add_value(&builder,
                                g_variant_new_dict_entry(g_variant_new_string(toValidUtf8(key).c_str()), text));
    g_variant_unref(text);
  }
  return g_variant_builder_end(&builder);
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
