// docs/data-model.md must be what the compiled tables say. With
// CHD_WRITE_DATA_MODEL=1 the test writes the document instead of comparing.
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "../configuration/ConfigurationTestSupport.h"
#include "DataModelDocument.h"

namespace {

std::string lookup(const ConfigurationManagementService::StringMap& map, const std::string& key) {
  auto found = map.find(key);
  return found == map.end() ? std::string() : found->second;
}

std::vector<std::string> listFor(const ConfigurationManagementService::ValueListMap& map, const std::string& key) {
  auto found = map.find(key);
  return found == map.end() ? std::vector<std::string>()
                            : std::vector<std::string>(found->second.begin(), found->second.end());
}

class DataModelDocumentTest : public cmtest::ConfigurationTest {
 protected:
  datamodel::Variant collect(int locale, bool wifi) {
    destroyService();
    mPlatform->locale = locale;
    mPlatform->wifi = wifi;
    createService();
    ConfigurationManagementService& cm = service();
    datamodel::Variant variant{locale, wifi, {}};
    for (const std::string& path : cm.dataModel().upnpKeys) {
      variant.paths.push_back(describe(cm, path));
    }
    return variant;
  }

  static datamodel::PathEntry describe(ConfigurationManagementService& cm, const std::string& path) {
    datamodel::PathEntry entry;
    entry.path = path;
    const std::pair<const char*, const ConfigurationManagementService::StringMap*> kinds[] = {
        {"queried status", &cm.dataModel().upnpToQueryStatus},
        {"timer", &cm.dataModel().upnpToTimerName},
        {"counter", &cm.dataModel().upnpToCounterName}};
    if (cm.dataModel().fileSettings.count(path) != 0) {
      entry.source = "file setting";
    } else if (cm.dataModel().settings.count(path) != 0) {
      entry.source = "setting";
    } else if (cm.dataModel().statuses.count(path) != 0) {
      entry.source = "status";
    }
    entry.key = lookup(cm.dataModel().upnpToStatusKey, path);
    for (const auto& kind : kinds) {
      if (entry.source.empty() && kind.second->count(path) != 0) {
        entry.source = kind.first;
        entry.key = lookup(*kind.second, path);
      }
    }
    const std::string reaches = lookup(cm.dataModel().statusKeyToUpnp, entry.key);
    if (!entry.key.empty() && entry.source != "queried status" && entry.source != "timer" &&
        entry.source != "counter" && reaches != path) {
      entry.keyReaches = reaches;
    }
    entry.settable = cm.isValidSettingPath(path) || cm.isValidFileSettingPath(path);
    entry.upnpValues = listFor(cm.dataModel().upnpValues, path);
    entry.boxValues = listFor(cm.dataModel().statusValues, entry.key);
    return entry;
  }
};

TEST_F(DataModelDocumentTest, DocumentMatchesTheCompiledTables) {
  std::vector<datamodel::Variant> variants;
  for (const auto& [locale, wifi] : datamodel::platformVariants()) {
    variants.push_back(collect(locale, wifi));
    ASSERT_FALSE(variants.back().paths.empty());
  }
  const std::string document = datamodel::renderDocument(variants);
  const std::string file = std::string(CHD_SOURCE_DIR) + "/docs/data-model.md";
  const char* write = std::getenv("CHD_WRITE_DATA_MODEL");
  if (write != nullptr && std::string(write) == "1") {
    std::ofstream(file) << document;
  }
  std::ifstream in(file);
  std::stringstream stored;
  stored << in.rdbuf();
  EXPECT_EQ(stored.str(), document) << "docs/data-model.md differs from the tables; regenerate it with "
                                       "CHD_WRITE_DATA_MODEL=1 and this test";
}

}  // namespace
