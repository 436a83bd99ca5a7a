// One connection as the client would see it: the stream keeps every byte
// that reaches the peer, and either side can be made to fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "zuna_http/WebServer.h"

namespace chdtest {

class FakeStream : public zuna_http::ReaderWriter {
 public:
  // All of it, or what fits below acceptLimit; -1 when broken.
  int64_t write(const void* data, size_t length) override;
  // The next bytes of input, 0 at its end; -1 when broken.
  int64_t read(void* buffer, size_t length) override;

  // What reached the peer.
  std::string bytes;
  // What the peer sends.
  std::string input;
  // The peer goes away once this many bytes reached it; negative: never.
  int64_t acceptLimit = -1;
  bool broken = false;

 private:
  size_t mInputRead = 0;
};

class FakeWebSocket : public zuna_http::WebSocket {
 public:
  // The head goes through the stream, as the real connection's does.
  bool send(const zuna_http::WebHeaderBase& head) override;
  // Body writes: to the stream unless failWrites.
  int64_t write(const void* data, size_t length) override;
  zuna_http::ReaderWriter* getReaderWriter() override { return &stream; }
  void close() override { ++closeCalls; }

  const std::string& bytes() const { return stream.bytes; }

  FakeStream stream;
  int sendCalls = 0;
  int writeCalls = 0;
  int closeCalls = 0;
  bool failWrites = false;
};

}  // namespace chdtest
