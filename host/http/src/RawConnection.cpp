#include "RawConnection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

namespace zuna_http::host {

namespace {

// A client that stops reading must not hold a worker for ever.
constexpr int kSendTimeoutSeconds = 60;

}  // namespace

RawConnection::RawConnection(int fd) : mFd(fd) {
  timeval timeout{kSendTimeoutSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

RawConnection::~RawConnection() { close(); }

bool RawConnection::send(const WebHeaderBase& head) { return head.send(this); }

int64_t RawConnection::write(const void* data, size_t length) {
  const int fd = mFd.load();
  if (fd < 0) {
    return -1;
  }
  const char* bytes = static_cast<const char*>(data);
  size_t written = 0;
  while (written < length) {
    // MSG_NOSIGNAL: a peer that went away is an error here, not a SIGPIPE.
    ssize_t sent = ::send(fd, bytes + written, length - written, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) {
      continue;
    }
    if (sent <= 0) {
      return -1;
    }
    written += static_cast<size_t>(sent);
  }
  return static_cast<int64_t>(written);
}

int64_t RawConnection::read(void* buffer, size_t length) {
  const int fd = mFd.load();
  if (fd < 0) {
    return -1;
  }
  ssize_t received;
  do {
    received = ::recv(fd, buffer, length, 0);
  } while (received < 0 && errno == EINTR);
  return received;
}

void RawConnection::close() {
  const int fd = mFd.exchange(-1);
  if (fd >= 0) {
    ::shutdown(fd, SHUT_WR);
    ::close(fd);
  }
}

}  // namespace zuna_http::host
