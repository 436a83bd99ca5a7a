#include "FakeWebSocket.h"

#include <algorithm>
#include <cstring>

namespace chdtest {

int64_t FakeStream::write(const void* data, size_t length) {
  if (broken) {
    return -1;
  }
  size_t accepted = length;
  if (acceptLimit >= 0) {
    const auto limit = static_cast<size_t>(acceptLimit);
    accepted = std::min(length, limit > bytes.size() ? limit - bytes.size() : 0);
  }
  bytes.append(static_cast<const char*>(data), accepted);
  return static_cast<int64_t>(accepted);
}

int64_t FakeStream::read(void* buffer, size_t length) {
  if (broken) {
    return -1;
  }
  const size_t left = mInputRead < input.size() ? input.size() - mInputRead : 0;
  const size_t count = std::min(length, left);
  std::memcpy(buffer, input.data() + mInputRead, count);
  mInputRead += count;
  return static_cast<int64_t>(count);
}

bool FakeWebSocket::send(const zuna_http::WebHeaderBase& head) {
  ++sendCalls;
  return head.send(&stream);
}

int64_t FakeWebSocket::write(const void* data, size_t length) {
  ++writeCalls;
  if (failWrites) {
    return -1;
  }
  return stream.write(data, length);
}

}  // namespace chdtest
