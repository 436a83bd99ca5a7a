// Finding ManageableDevices with GUPnP's control point, and picking the one
// box a command names.
#pragma once

#include <libgupnp/gupnp.h>

#include <string>
#include <vector>

namespace chdcp {

struct Box {
  std::string udn;
  std::string friendlyName;
  std::string clientId;  // the model description
  std::string model;
  std::string manufacturer;
  std::string location;               // description URL
  std::string host;                   // address part of the description URL
  std::string baseUrl;                // scheme, host and port of the box's HTTP server
  GUPnPDeviceProxy* proxy = nullptr;  // owned by the Discovery
};

class Discovery {
 public:
  // interfaceName empty: the interface of the default route, else loopback.
  explicit Discovery(const std::string& interfaceName);
  ~Discovery();
  Discovery(const Discovery&) = delete;
  Discovery& operator=(const Discovery&) = delete;

  // Every box seen within seconds.
  std::vector<Box> listFor(double seconds);

  // The one box that name identifies (UDN, friendly name, client id or IP
  // address), waiting at most seconds for it; throws a Failure otherwise.
  Box find(const std::string& name, double seconds);

  // Whether the box is still announced (it has not said goodbye).
  bool present(const std::string& udn) const;

 private:
  std::vector<Box> matching(const std::string& name) const;
  static void onAvailable(GUPnPControlPoint* controlPoint, GUPnPDeviceProxy* proxy, gpointer self);
  static void onUnavailable(GUPnPControlPoint* controlPoint, GUPnPDeviceProxy* proxy, gpointer self);

  GUPnPContext* mContext = nullptr;
  GUPnPControlPoint* mControlPoint = nullptr;
  std::vector<Box> mBoxes;
  std::vector<Box> mGone;
  double mStarted = 0;
};

// The interface of the IPv4 default route, or "lo" when there is none.
std::string defaultInterface();

}  // namespace chdcp
