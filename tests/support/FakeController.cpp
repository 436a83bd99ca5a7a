#include "FakeController.h"

#include <algorithm>
#include <utility>

namespace chdtest {

FakeController::FakeController(CallJournal* journal) : mRegistry(journal) {}

bool FakeController::init(zuna::net::NetworkManager* monitor, Tolvane::StringVector interfaces,
                          Tolvane::StringVector serverNames) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mInitCalls.push_back(InitCall{monitor, std::move(interfaces), std::move(serverNames)});
  return true;
}

bool FakeController::addRootDevice(zuna_upnp::RootDevice* device) {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (device == nullptr || std::find(mRootDevices.begin(), mRootDevices.end(), device) != mRootDevices.end()) {
    return false;
  }
  mRootDevices.push_back(device);
  return true;
}

bool FakeController::registerWebProvider(zuna_http::WebServiceProvider* provider, const std::string& method,
                                         const std::string& path) {
  mRegistry.journal().record("registerWebProvider " + method + " " + path, provider);
  if (provider == nullptr || zuna_http::WebServer::getMethod(method) != zuna_http::WebServer::METHOD_GET) {
    return false;
  }
  mRegistry.add({nullptr, zuna_http::WebServer::METHOD_GET, path, provider});
  return true;
}

void FakeController::unregisterWebProvider(zuna_http::WebServiceProvider* provider) {
  mRegistry.journal().record("unregisterWebProvider", provider);
  mRegistry.removeProvider(provider);
}

std::string FakeController::getServerString() {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mServerString;
}

void FakeController::shutdown() {
  const std::lock_guard<std::mutex> lock(mMutex);
  ++mShutdownCalls;
}

void FakeController::setServerString(const std::string& server) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mServerString = server;
}

zuna_http::WebServiceProvider* FakeController::providerFor(const std::string& path) const {
  return mRegistry.find(nullptr, zuna_http::WebServer::METHOD_GET, path);
}

std::vector<FakeController::InitCall> FakeController::initCalls() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mInitCalls;
}

std::vector<zuna_upnp::RootDevice*> FakeController::rootDevices() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mRootDevices;
}

int FakeController::shutdownCalls() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mShutdownCalls;
}

}  // namespace chdtest
