#include "DataModelDocument.h"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>

namespace datamodel {
namespace {

const int kLocales[] = {0, 1, 2, 3};

const char* const kIntroduction =
    "# The /vsp/ data model\n"
    "\n"
    "Generated from the daemon's compiled tables by the unit test\n"
    "`tests/unit/datamodel` (`CHD_WRITE_DATA_MODEL=1` rewrites it; the test fails\n"
    "while this file and the tables differ). Do not edit by hand.\n"
    "\n"
    "Every path of the ConfigurationManagement data model, on every kind of box.\n"
    "The platform's locale code and whether the box has Wi-Fi decide which paths\n"
    "exist: locale 0 stands for every code other than 1, 2 and 3 (captioning), the\n"
    "codes 1, 2 and 3 replace captioning with subtitles, code 2 adds the TV\n"
    "encoding, and a box with Wi-Fi adds the Wi-Fi figures.\n"
    "\n"
    "Columns:\n"
    "\n"
    "- **Source**: where the value lives. A *file setting* is kept in the client\n"
    "  application's settings file, a *setting* is one of the service's own\n"
    "  settings, a *status* is a status of the box's status store followed as it\n"
    "  changes, a *queried status* is read from the store at each request, a\n"
    "  *timer* gives the seconds a status-store timer has run, a *counter* a\n"
    "  status-store counter.\n"
    "- **Box key**: the settings key, status key, timer or counter name.\n"
    "- **SetValues**: whether SetValues accepts the path (all others are refused\n"
    "  with 703). `/vsp/Standby/IN_STANDBY` is accepted only on boxes with Echo\n"
    "  support. GetAttributes reports every path read-only whatever this column\n"
    "  says.\n"
    "- **Values**: for a path with a value list, each value the server reads and\n"
    "  writes, with the box's value it stands for; SetValues refuses any other\n"
    "  value with 705. A settable path without a list takes any non-empty text,\n"
    "  stored as sent.\n"
    "- **Present**: the locale codes and Wi-Fi condition under which the path\n"
    "  exists; a path that differs between kinds of box has a row for each.\n"
    "\n"
    "GetValues shows a stored value that is not translated by a list only by its\n"
    "last dotted component (\"Common.True\" reads \"True\"), except the CEC active\n"
    "source, which is an address. With locale code 2, a change of the aspect ratio\n"
    "also sets `/vsp/HDTV/TV_FORMAT` (\"Widescreen 16:9\" for a widescreen ratio,\n"
    "else \"Standard 4:3\").\n"
    "\n";

std::string code(const std::string& text) { return text.empty() ? "(none)" : "`" + text + "`"; }

std::string valuesText(const PathEntry& entry) {
  if (entry.upnpValues.empty()) {
    return entry.settable ? "any text" : "";
  }
  std::string text;
  for (size_t i = 0; i < entry.upnpValues.size(); ++i) {
    text += (i == 0 ? "" : "<br>") + code(entry.upnpValues[i]);
    if (entry.boxValues.size() == entry.upnpValues.size()) {
      text += " = " + code(entry.boxValues[i]);
    }
  }
  return text;
}

// What a row says apart from its path and presence.
std::string rowBody(const PathEntry& entry) {
  std::string key = code(entry.key);
  if (!entry.keyReaches.empty()) {
    key += " (its changes reach " + code(entry.keyReaches) + ")";
  }
  std::string settable = entry.settable ? "yes" : "no";
  if (entry.settable && entry.key.empty()) {
    settable = "yes, without effect (no box key)";
  }
  return entry.source + " | " + key + " | " + settable + " | " + valuesText(entry);
}

std::string presenceText(const std::set<std::pair<int, bool>>& variants) {
  std::set<int> locales;
  bool withWifi = false;
  bool withoutWifi = false;
  for (const auto& variant : variants) {
    locales.insert(variant.first);
    withWifi = withWifi || variant.second;
    withoutWifi = withoutWifi || !variant.second;
  }
  std::string text;
  if (locales.size() == std::size(kLocales)) {
    text = "every locale";
  } else {
    text = locales.size() == 1 ? "locale " : "locales ";
    for (int locale : locales) {
      text += (locale == *locales.begin() ? "" : ", ") + std::to_string(locale);
    }
  }
  if (!withoutWifi) {
    return text + ", Wi-Fi only";
  }
  return withWifi ? text : text + ", without Wi-Fi";
}

}  // namespace

std::vector<std::pair<int, bool>> platformVariants() {
  std::vector<std::pair<int, bool>> variants;
  for (int locale : kLocales) {
    variants.emplace_back(locale, false);
    variants.emplace_back(locale, true);
  }
  return variants;
}

std::string renderDocument(const std::vector<Variant>& variants) {
  // path -> row body -> the variants that have the path with that body
  std::map<std::string, std::map<std::string, std::set<std::pair<int, bool>>>> rows;
  for (const Variant& variant : variants) {
    for (const PathEntry& entry : variant.paths) {
      rows[entry.path][rowBody(entry)].insert({variant.locale, variant.wifi});
    }
  }
  std::ostringstream out;
  out << kIntroduction << "| Path | Source | Box key | SetValues | Values | Present |\n"
      << "|---|---|---|---|---|---|\n";
  for (const auto& [path, bodies] : rows) {
    for (const auto& [body, present] : bodies) {
      out << "| `" << path << "` | " << body << " | " << presenceText(present) << " |\n";
    }
  }
  out << "\n" << rows.size() << " paths in all.\n";
  return out.str();
}

}  // namespace datamodel
