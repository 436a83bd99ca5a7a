#include "Discovery.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "Failure.h"
#include "MainLoop.h"

namespace chdcp {
namespace {

constexpr char kDeviceType[] = "urn:schemas-upnp-org:device:ManageableDevice:1";
// Boxes answer a search within this many seconds (its MX), at random moments
// so that they do not all answer at once.
constexpr guint kSearchAnswerSeconds = 1;
// A name other than a UDN may fit several boxes: every box has answered the
// first search, and its description has been read, this long after it.
constexpr double kAllAnsweredSeconds = kSearchAnswerSeconds + 0.7;

std::string owned(char* text) {
  std::string value = text != nullptr ? text : "";
  g_free(text);
  return value;
}

Box describe(GUPnPDeviceProxy* proxy) {
  auto* info = GUPNP_DEVICE_INFO(proxy);
  Box box;
  box.udn = gupnp_device_info_get_udn(info);
  box.friendlyName = owned(gupnp_device_info_get_friendly_name(info));
  box.clientId = owned(gupnp_device_info_get_model_description(info));
  box.model = owned(gupnp_device_info_get_model_name(info));
  box.manufacturer = owned(gupnp_device_info_get_manufacturer(info));
  box.location = gupnp_device_info_get_location(info);
  GUri* uri = g_uri_parse(box.location.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (uri != nullptr) {
    box.host = g_uri_get_host(uri) != nullptr ? g_uri_get_host(uri) : "";
    box.baseUrl = owned(g_uri_join(G_URI_FLAGS_NONE, g_uri_get_scheme(uri), nullptr, g_uri_get_host(uri),
                                   g_uri_get_port(uri), "", nullptr, nullptr));
    g_uri_unref(uri);
  }
  box.proxy = GUPNP_DEVICE_PROXY(g_object_ref(proxy));
  return box;
}

bool names(const Box& box, const std::string& name) {
  return name == box.udn || "uuid:" + name == box.udn || name == box.friendlyName || name == box.clientId ||
         name == box.host;
}

constexpr int kContextAttempts = 8;

}  // namespace

std::string defaultInterface() {
  // Columns of the kernel's IPv4 routing table: Iface Destination Gateway ...
  std::ifstream routes("/proc/net/route");
  std::string line;
  std::getline(routes, line);
  while (std::getline(routes, line)) {
    std::istringstream fields(line);
    std::string interfaceName;
    std::string destination;
    if (fields >> interfaceName >> destination && destination == "00000000") {
      return interfaceName;
    }
  }
  return "lo";
}

Discovery::Discovery(const std::string& interfaceName) {
  const std::string chosen = interfaceName.empty() ? defaultInterface() : interfaceName;
  GError* error = nullptr;
  // GUPnP listens for events on the TCP port of the number GSSDP drew for its
  // UDP socket, which a TCP connection may hold: another draw then does.
  for (int attempt = 0; attempt < kContextAttempts && mContext == nullptr; ++attempt) {
    g_clear_error(&error);
    mContext = gupnp_context_new_full(chosen.c_str(), nullptr, 0, GSSDP_UDA_VERSION_1_0, &error);
  }
  if (mContext == nullptr) {
    const std::string message = "cannot use interface " + chosen + ": " + error->message;
    g_clear_error(&error);
    throw Failure(kExitUsage, message);
  }
  // Boxes are on the home network: no proxy between us and them.
  soup_session_set_proxy_resolver(gupnp_context_get_session(mContext), nullptr);
  mControlPoint = gupnp_control_point_new(mContext, kDeviceType);
  g_signal_connect(mControlPoint, "device-proxy-available", G_CALLBACK(onAvailable), this);
  g_signal_connect(mControlPoint, "device-proxy-unavailable", G_CALLBACK(onUnavailable), this);
  gssdp_resource_browser_set_mx(GSSDP_RESOURCE_BROWSER(mControlPoint), kSearchAnswerSeconds);
  gssdp_resource_browser_set_active(GSSDP_RESOURCE_BROWSER(mControlPoint), TRUE);
  mStarted = monotonicSeconds();
}

Discovery::~Discovery() {
  for (std::vector<Box>* boxes : {&mBoxes, &mGone}) {
    for (Box& box : *boxes) {
      g_object_unref(box.proxy);
    }
  }
  g_signal_handlers_disconnect_by_data(mControlPoint, this);
  g_object_unref(mControlPoint);
  g_object_unref(mContext);
}

void Discovery::onAvailable(GUPnPControlPoint* /*controlPoint*/, GUPnPDeviceProxy* proxy, gpointer self) {
  auto* discovery = static_cast<Discovery*>(self);
  const std::string udn = gupnp_device_info_get_udn(GUPNP_DEVICE_INFO(proxy));
  for (const Box& box : discovery->mBoxes) {
    if (box.udn == udn) {
      return;
    }
  }
  discovery->mBoxes.push_back(describe(proxy));
}

void Discovery::onUnavailable(GUPnPControlPoint* /*controlPoint*/, GUPnPDeviceProxy* proxy, gpointer self) {
  auto& boxes = static_cast<Discovery*>(self)->mBoxes;
  const std::string udn = gupnp_device_info_get_udn(GUPNP_DEVICE_INFO(proxy));
  auto gone = std::find_if(boxes.begin(), boxes.end(), [&udn](const Box& box) { return box.udn == udn; });
  if (gone != boxes.end()) {
    // A command may still hold this box; its proxy lives as long as the discovery.
    static_cast<Discovery*>(self)->mGone.push_back(*gone);
    boxes.erase(gone);
  }
}

bool Discovery::present(const std::string& udn) const {
  return std::any_of(mBoxes.begin(), mBoxes.end(), [&udn](const Box& box) { return box.udn == udn; });
}

std::vector<Box> Discovery::listFor(double seconds) {
  runFor(seconds);
  return mBoxes;
}

std::vector<Box> Discovery::matching(const std::string& name) const {
  std::vector<Box> found;
  std::copy_if(mBoxes.begin(), mBoxes.end(), std::back_inserter(found),
               [&name](const Box& box) { return names(box, name); });
  return found;
}

Box Discovery::find(const std::string& name, double seconds) {
  if (!runUntil([this, &name] { return !matching(name).empty(); }, seconds)) {
    throw Failure(kExitNoBox, "no box named '" + name + "' answered within " + std::to_string(int(seconds)) + " s");
  }
  const bool unique = std::any_of(mBoxes.begin(), mBoxes.end(),
                                  [&name](const Box& box) { return name == box.udn || "uuid:" + name == box.udn; });
  if (!unique) {
    runFor(mStarted + kAllAnsweredSeconds - monotonicSeconds());
  }
  std::vector<Box> found = matching(name);
  if (found.size() > 1) {
    std::string udns;
    for (const Box& box : found) {
      udns += (udns.empty() ? "" : ", ") + box.udn;
    }
    throw Failure(kExitUsage, "'" + name + "' names " + std::to_string(found.size()) + " boxes (" + udns +
                                  "); name one by its UDN");
  }
  if (found.empty()) {
    throw Failure(kExitNoBox, "box '" + name + "' went away");
  }
  return found.front();
}

}  // namespace chdcp
