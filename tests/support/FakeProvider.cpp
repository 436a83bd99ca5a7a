#include "FakeProvider.h"

namespace chdtest {

void FakeProvider::handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* request) {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mPaths.push_back(request->getPath());
  }
  socket->write(mBody.data(), mBody.size());
  socket->close();
}

std::vector<std::string> FakeProvider::paths() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mPaths;
}

}  // namespace chdtest
