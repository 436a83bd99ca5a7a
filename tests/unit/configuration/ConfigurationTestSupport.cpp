#include "ConfigurationTestSupport.h"

#include <tinyxml.h>

#include <chrono>
#include <fstream>
#include <future>
#include <sstream>

namespace cmtest {

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
}

void StoreRecorder::onStatusesChanged(const StatusMap& statuses) {
  if (onStatuses) {
    onStatuses(statuses);
  }
  const std::lock_guard<std::mutex> guard(mMutex);
  mEntries.push_back(Entry{false, statuses, "", ""});
}

void StoreRecorder::onEventPosted(const std::string& name, const std::string& value) {
  const std::lock_guard<std::mutex> guard(mMutex);
  mEntries.push_back(Entry{true, StatusMap(), name, value});
}

std::vector<StoreRecorder::Entry> StoreRecorder::entries() const {
  const std::lock_guard<std::mutex> guard(mMutex);
  return mEntries;
}

std::vector<std::string> StoreRecorder::eventNames() const {
  const std::lock_guard<std::mutex> guard(mMutex);
  std::vector<std::string> names;
  for (const Entry& entry : mEntries) {
    if (entry.isEvent) {
      names.push_back(entry.name);
    }
  }
  return names;
}

void StoreRecorder::clear() {
  const std::lock_guard<std::mutex> guard(mMutex);
  mEntries.clear();
}

FakeClientApp::FakeClientApp(StatusManager* store) : mStore(store), mThread("FakeClientApp", 0) {
  mStore->addListener(this, &mThread);
  mStore->registerEventNames(this, StatusNameList{"Settings Refresh Apply Event"});
}

FakeClientApp::~FakeClientApp() {
  mStore->removeListener(this);
  mThread.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(this));
  mThread.shutdown();
}

void FakeClientApp::setMode(Mode mode, const std::string& errorText) {
  const std::lock_guard<std::mutex> guard(mMutex);
  mMode = mode;
  mErrorText = errorText;
}

void FakeClientApp::notifyEventPosted(std::string name, std::string /*value*/) {
  if (name != "Settings Refresh Apply Event") {
    return;
  }
  Mode mode;
  std::string errorText;
  {
    const std::lock_guard<std::mutex> guard(mMutex);
    mode = mMode;
    errorText = mErrorText;
  }
  if (mode == ERROR_THEN_COMPLETE || mode == ERROR_ONLY) {
    mStore->postEvent("Settings Refresh Error Event", errorText, 0);
  }
  if (mode == COMPLETE || mode == ERROR_THEN_COMPLETE) {
    mStore->postEvent("Settings Refresh Completed Event", "", 0);
  }
  {
    const std::lock_guard<std::mutex> guard(mMutex);
    ++mApplyCount;
  }
  mApplied.notify_all();
}

bool FakeClientApp::waitForApply(int count) {
  std::unique_lock<std::mutex> lock(mMutex);
  return mApplied.wait_for(lock, std::chrono::seconds(10), [&] { return mApplyCount.load() >= count; });
}

namespace {
struct FunctionCall {
  std::function<void()> fn;
  void run() { fn(); }
};
}  // namespace

void runOn(Tolvane::EventDispatcher* dispatcher, const std::function<void()>& fn) {
  FunctionCall call{fn};
  dispatcher->send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&call, &FunctionCall::run)));
}

void ConfigurationTest::SetUp() {
  mDir = std::make_unique<TempDir>();
  mSettingsFile = mDir->path() + "/settings.conf";
  const std::string config = mDir->path() + "/platform.conf";
  writeFile(config, "[platform]\nlog_path=" + mDir->path() +
                        "/log\n[statusstore]\nbus=none\n[settings]\nfile=" + mSettingsFile + "\n");
  mPlatform = std::make_unique<FakePlatformSettings>(config);
  Tolvane::host::setPlatformSettingsForTest(mPlatform.get());
  mClock = std::make_unique<Tolvane::host::ManualClock>(1000000);
  Tolvane::host::setClock(mClock.get());
  mStore = std::make_unique<statusstore::LocalStatusManager>();
  statusstore::setInstanceForTest(mStore.get());
  mStore->addObserver(&mRecorder);
  mLog = std::make_unique<chdtest::LogRecorder>();
  mDevice = std::make_unique<zuna_upnp::RootDevice>();
  createService();
}

void ConfigurationTest::TearDown() {
  destroyService();
  mDevice.reset();
  mStore->removeObserver(&mRecorder);
  statusstore::setInstanceForTest(nullptr);
  mStore.reset();
  mLog.reset();
  Tolvane::host::setClock(nullptr);
  mClock.reset();
  Tolvane::host::setPlatformSettingsForTest(nullptr);
  mPlatform.reset();
  mDir.reset();
}

void ConfigurationTest::createService() { mService = new ConfigurationManagementService(mDevice.get(), mDevice.get()); }

void ConfigurationTest::destroyService() {
  if (mService != nullptr) {
    mService->shutdown();
    delete mService;
    mService = nullptr;
  }
}

void ConfigurationTest::flush() {
  runOn(&mService->statusDispatcher(), [] {});
  runOn(dispatcher(), [] {});
}

void ConfigurationTest::setStatuses(const StatusMap& statuses) {
  mStore->setStatuses(statuses);
  flush();
}

ActionResult ConfigurationTest::getValues(const std::string& xml, const std::string& initialOut) {
  ActionResult r{zuna_upnp::UPnPReturn(), initialOut};
  runOn(dispatcher(), [&] { r.result = mService->GetValues(xml, r.out); });
  return r;
}

ActionResult ConfigurationTest::setValues(const std::string& xml, const std::string& initialOut) {
  auto pending = std::async(std::launch::async, [this, xml, initialOut] {
    ActionResult r{zuna_upnp::UPnPReturn(), initialOut};
    runOn(dispatcher(), [&] { r.result = mService->SetValues(xml, r.out); });
    return r;
  });
  // A handshake that never completes would wait on the driven clock forever.
  if (pending.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
    ADD_FAILURE() << "SetValues did not answer; ending its wait";
    mClock->advance(5000);
  }
  return pending.get();
}

ActionResult ConfigurationTest::getAttributes(const std::string& xml, const std::string& initialOut) {
  ActionResult r{zuna_upnp::UPnPReturn(), initialOut};
  runOn(dispatcher(), [&] { r.result = mService->GetAttributes(xml, r.out); });
  return r;
}

ActionResult ConfigurationTest::getSupportedParameters(const std::string& node, unsigned depth,
                                                       const std::string& initialOut) {
  ActionResult r{zuna_upnp::UPnPReturn(), initialOut};
  runOn(dispatcher(), [&] { r.result = mService->GetSupportedParameters(node, depth, r.out); });
  return r;
}

std::vector<std::string> ConfigurationTest::supportedParameters(const std::string& node, unsigned depth) {
  ActionResult r = getSupportedParameters(node, depth);
  EXPECT_EQ(0, r.result.code) << r.result.description;
  std::vector<std::string> paths;
  TiXmlDocument document;
  document.Parse(r.out.c_str());
  for (TiXmlElement* e = document.FirstChildElement(); e != nullptr; e = e->NextSiblingElement()) {
    EXPECT_EQ("StructurePath", e->ValueStr());
    paths.push_back(e->GetText() != nullptr ? e->GetText() : "");
  }
  return paths;
}

std::string ConfigurationTest::valueOf(const std::string& path) {
  ActionResult r = getValues(contentPathList({path}));
  if (!r.result.isSuccess()) {
    return "<" + std::to_string(r.result.code) + ">";
  }
  TiXmlDocument document;
  document.Parse(r.out.c_str());
  TiXmlElement* value =
      document.FirstChildElement("ParameterValueList")->FirstChildElement("Parameter")->FirstChildElement("Value");
  return value->GetText() != nullptr ? value->GetText() : "";
}

void ConfigurationTest::expectInvalidXml(const ActionResult& r, const std::string& reason) {
  expectFailure(r, 702, "Invalid XML Argument");
  EXPECT_EQ(0, mLog->levelOfFirst(reason));
}

void expectFailure(const ActionResult& r, int code, const std::string& description) {
  EXPECT_EQ(1, r.result.kind);
  EXPECT_EQ(code, r.result.code);
  EXPECT_EQ(description, r.result.description);
  EXPECT_EQ("untouched", r.out);
}

std::string contentPathList(const std::vector<std::string>& paths) {
  std::string xml = "<ContentPathList>";
  for (const std::string& path : paths) {
    xml += "<ContentPath>" + path + "</ContentPath>";
  }
  return xml + "</ContentPathList>";
}

std::string parameter(const std::string& path, const std::string& value) {
  return "<Parameter><ParameterPath>" + path + "</ParameterPath><Value>" + value + "</Value></Parameter>";
}

std::string parameterValueList(const std::vector<std::pair<std::string, std::string>>& values) {
  std::string xml = "<ParameterValueList>";
  for (const auto& value : values) {
    xml += parameter(value.first, value.second);
  }
  return xml + "</ParameterValueList>";
}

}  // namespace cmtest
