// A GUPnP control point and HTTP client running on the test thread's own
// GLib main context, for driving the stack from the outside.
#pragma once

#include <libgupnp/gupnp.h>
#include <libsoup/soup.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace upnp_it {

struct ActionResult {
  bool ok = false;
  int errorCode = 0;
  std::string errorMessage;
  std::map<std::string, std::string> outputs;
};

struct HttpResult {
  unsigned status = 0;
  std::string body;
  std::string connectionHeader;
};

class ControlPoint {
 public:
  // Browses for deviceType on the interface.
  ControlPoint(const std::string& interfaceName, const std::string& deviceType);
  ~ControlPoint();
  ControlPoint(const ControlPoint&) = delete;
  ControlPoint& operator=(const ControlPoint&) = delete;

  // Runs this thread's main context until done() or the time-out.
  bool runUntil(const std::function<bool()>& done, int timeoutMs);
  // The proxy of the device with that UDN once discovered (owned here).
  GUPnPDeviceProxy* waitForDevice(const std::string& udn, int timeoutMs);
  bool deviceGone(const std::string& udn) const;
  GUPnPServiceProxy* service(GUPnPDeviceProxy* device, const std::string& type);

  // Arguments are strings (GUPnP converts them as the SCPD says).
  ActionResult invoke(GUPnPServiceProxy* service, const std::string& action,
                      const std::vector<std::pair<std::string, std::string>>& inputs,
                      const std::vector<std::string>& outputNames);
  HttpResult get(const std::string& url);

  // NOTIFY requests this control point has received.
  int notifyCount() const { return mNotifyCount; }
  GUPnPContext* context() const { return mContext; }
  GMainContext* mainContext() const { return mMainContext; }

 private:
  static void onDeviceAvailable(GUPnPControlPoint* cp, GUPnPDeviceProxy* proxy, gpointer data);
  static void onDeviceUnavailable(GUPnPControlPoint* cp, GUPnPDeviceProxy* proxy, gpointer data);
  static void onRequestFinished(SoupServer* server, SoupServerMessage* msg, gpointer data);
  static void onRequestStarted(SoupServer* server, SoupServerMessage* msg, gpointer data);
  static void onNotifyHeaders(SoupServerMessage* msg, gpointer data);
  static void onRequestQueued(SoupSession* session, SoupMessage* msg, gpointer data);
  static void onRequestUnqueued(SoupSession* session, SoupMessage* msg, gpointer data);
  static gboolean releaseHeldNotifies(gpointer data);

  GMainContext* mMainContext;
  GUPnPContext* mContext = nullptr;
  GUPnPControlPoint* mControlPoint = nullptr;
  SoupSession* mSession = nullptr;
  std::map<std::string, GUPnPDeviceProxy*> mDevices;
  std::vector<GUPnPServiceProxy*> mServices;
  int mNotifyCount = 0;
  // On loopback a first event can overtake the answer to SUBSCRIBE, which
  // GUPnP's control point then drops; events wait here until the answer has
  // been taken in, as they would on any real network.
  int mSubscribesInFlight = 0;
  std::vector<SoupServerMessage*> mHeldNotifies;
};

// A GENA subscriber made of a libsoup server and session on the control
// point's main context. It sees every event message as it arrives, whatever
// the order of the answer to SUBSCRIBE and the first event.
class EventSubscriber {
 public:
  struct Event {
    std::string sid;
    unsigned seq = 0;
    std::map<std::string, std::string> values;
  };

  explicit EventSubscriber(ControlPoint& controlPoint);
  ~EventSubscriber();
  EventSubscriber(const EventSubscriber&) = delete;
  EventSubscriber& operator=(const EventSubscriber&) = delete;

  // The subscription id, or "" (status holds the HTTP status).
  std::string subscribe(const std::string& eventUrl, unsigned& status);
  unsigned unsubscribe(const std::string& eventUrl, const std::string& sid);
  const std::vector<Event>& events() const { return mEvents; }

 private:
  static void onNotify(SoupServer* server, SoupServerMessage* msg, const char* path, GHashTable* query, gpointer data);

  SoupServer* mServer = nullptr;
  SoupSession* mSession = nullptr;
  std::string mCallback;
  std::vector<Event> mEvents;
};

// Runs curl so that the request target goes out exactly as written.
unsigned rawGetStatus(const std::string& url);

}  // namespace upnp_it
