// Where the status store lives on D-Bus, and how its clients get there.
#pragma once

#include <gio/gio.h>

#include <map>
#include <string>

#include "statusstore_host/LocalStatusManager.h"

namespace statusstore {

inline constexpr char kStoreBusName[] = "org.tolvane.StatusStore1";
inline constexpr char kStoreObjectPath[] = "/org/tolvane/StatusStore1";
inline constexpr char kStoreInterface[] = "org.tolvane.StatusStore1";

// Bus setting that means "do not export the store".
inline constexpr char kNoBus[] = "none";

// The store's bus as the platform settings name it: "none", "session",
// "system" or a D-Bus address. "none" when the platform settings are not the
// host's file-backed ones.
std::string configuredBus();

// Opens a private connection to the named bus ("session", "system" or an
// address), so that closing it never affects another user of the same bus
// and losing the bus never ends the process. nullptr and *error set when the
// bus cannot be reached, or for "none".
GDBusConnection* connectToBus(const std::string& bus, GError** error);

// Introspection data of the store's interface; owned by the library.
GDBusInterfaceInfo* storeInterfaceInfo();

// D-Bus strings must be valid UTF-8, store values are plain bytes: invalid
// sequences are replaced so that any value can still travel.
std::string toValidUtf8(const std::string& text);

// a{ss} of the given map, floating.
GVariant* statusMapToVariant(const std::map<std::string, std::string>& statuses);

// A store value that is the string of a received message itself (type "s";
// the value takes over the reference): a value set over the bus is kept
// without a copy of its own.
SharedStatusValue statusValueFromVariant(GVariant* string);
// A string variant of a store value (a full reference, not floating) that
// shares the value's bytes wherever they are valid UTF-8 already.
GVariant* statusValueToVariant(const SharedStatusValue& value);
// a{ss} of shared values, floating; shares the values' bytes like statusValueToVariant.
GVariant* sharedStatusMapToVariant(const SharedStatusMap& statuses);

}  // namespace statusstore
