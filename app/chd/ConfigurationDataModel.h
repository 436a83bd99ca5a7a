// The "/vsp/" data model as the ConfigurationManagement service loaded it:
// every path, the box value that stands behind it, and how enumerated values
// are spelled on the UPnP side and on the box side. The tables are filled
// when the service is built; the values of settings and statuses follow the
// box afterwards, on the service dispatcher.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>

struct ConfigurationDataModel {
  typedef std::map<std::string, std::string> StringMap;
  typedef std::deque<std::string> StringList;
  typedef std::map<std::string, StringList> ValueListMap;

  // The depth of the deepest path.
  int32_t maxDepth = 0;
  // Current values by path, with the key each came from in the maps below.
  StringMap fileSettings;
  StringMap settings;
  StringMap statuses;
  // Every path in load order, and every status key the service listens to.
  StringList upnpKeys;
  StringList statusKeys;
  StringMap upnpToStatusKey;
  StringMap statusKeyToUpnp;
  // Paths whose value is read from the store when asked for.
  StringMap upnpToQueryStatus;
  StringMap upnpToTimerName;
  StringMap upnpToCounterName;
  // The allowed values of an enumerated path (UPnP spelling), of its key (box
  // spelling) in the same order, and box values shown under another text.
  ValueListMap upnpValues;
  ValueListMap statusValues;
  StringMap specialTranslations;
};
