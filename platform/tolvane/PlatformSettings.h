// Identity, capabilities and locations of the box.
//
// Contract:
// - One instance per process, created on first use by getInstance() and never
//   destroyed while the process runs: callers keep the pointer.
// - Every operation is safe from any thread, returns at once (no I/O that can
//   block: a port reads its sources when the instance is created) and gives
//   the same answer for the whole life of the process.
// - No operation fails: a value the box does not have is answered with its
//   default (false, 0 or ""). A configuration that makes the box unusable is
//   for getInstance() to report, before the daemon starts its work (the host
//   platform then ends the process with exit status 2).
// - Strings are returned by value; the caller owns its copy.
#pragma once

#include <string>

namespace Tolvane {

class PlatformSettings {
 public:
  // The box's one instance, created on first use. Never null. The first call
  // happens on the main thread before any other thread of the daemon starts.
  static PlatformSettings* getInstance();

  virtual ~PlatformSettings() = default;

  // False makes the daemon log and exit with status 0 at once.
  virtual bool hasChdSupport() = 0;
  // The kind of box: model, manufacturer name and manufacturer id go into the
  // device description and the client id "VESPARO <model>-<manufacturer id>".
  // They name the kind of box, not the box (the UDN does that, see
  // zuna_upnp::LocalDevice::makeUDN).
  virtual std::string getModel() = 0;
  virtual std::string getManufacturer() = 0;
  virtual std::string getManufacturerId() = 0;
  // The box's locale code, as the client application numbers locales (it
  // selects locale-specific value tables of the data model).
  virtual int getLocale() = 0;
  // Feature flags: Wi-Fi (adds the Wi-Fi chip log and the Wi-Fi figures),
  // log chunking (log files are sent in chunks rather than in one write),
  // EDID dumps (adds the EDID dump file to LogURIs) and voice assistant
  // support (without it SetValues of the standby parameter is refused).
  virtual bool hasWifi() = 0;
  virtual bool hasLogChunking() = 0;
  virtual bool supportsDumpingEEDID() = 0;
  virtual bool hasAmazonEchoSupport() = 0;
  // Directory of the box's log files, without a trailing "/". It exists and
  // is writable by the collection scripts; the daemon serves files below it.
  virtual std::string getLogPath() = 0;
  // Interface names for the UPnP stack: the link-local (auto-IP) one and the
  // wired one. "" when the box has none. A named interface need not exist
  // yet: the stack follows link changes and starts on it when it appears.
  virtual std::string getAutoIPInterface() = 0;
  virtual std::string getEthernetInterface() = 0;
};

}  // namespace Tolvane
