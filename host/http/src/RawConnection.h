// A stolen HTTP connection handed to a web provider: blocking writes of the
// head and body straight to the socket.
#pragma once

#include <atomic>

#include "zuna_http/WebServer.h"

namespace zuna_http::host {

class RawConnection : public WebSocket, public ReaderWriter {
 public:
  // Takes ownership of fd (a blocking stream socket).
  explicit RawConnection(int fd);
  ~RawConnection() override;
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool send(const WebHeaderBase& head) override;
  // All bytes, or -1 once the peer has gone or the socket is closed.
  int64_t write(const void* data, size_t length) override;
  int64_t read(void* buffer, size_t length) override;
  ReaderWriter* getReaderWriter() override { return this; }
  // Idempotent.
  void close() override;

 private:
  std::atomic<int> mFd;
};

}  // namespace zuna_http::host
