// Files and listening sockets of the Tolvane framework.
//
// Contract: an object belongs to the thread that uses it (no operation of one
// object is called from two threads at once); different objects are
// independent. Descriptors are opened close-on-exec, so collection scripts
// never inherit them. Errors are results (false, negative counts), never
// exceptions; errno tells the reason where the host implementation logs it.
// The destructors close what is still open.
//
// Threads in the daemon: log files are opened and read on the web server's
// worker thread that serves the request; the private listening socket is
// bound on the main thread, after which only the web server reads its handle
// (registerProvider, which waits for it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tolvane {

typedef std::vector<std::string> StringVector;

class File {
 public:
  File() = default;
  ~File();  // closes
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Opens an existing file read-only.
  bool open(const std::string& path);
  // Opens an existing regular file read-only only when the file it resolves
  // to (symbolic links followed) lies inside the directory root, itself
  // resolved. Anything else fails: a path that leaves root with "..", or a
  // link inside root that points outside it.
  bool openBeneath(const std::string& root, const std::string& path);
  bool isOpen() const { return mFd >= 0; }
  // Length in bytes of the open file; negative when it cannot be known.
  int64_t getLength();
  // Bytes read (0 at the end), or negative on error.
  int64_t read(void* buffer, size_t length);
  void close();

 private:
  int mFd = -1;
};

class ServerSocket {
 public:
  ServerSocket() = default;
  ~ServerSocket();  // closes
  ServerSocket(const ServerSocket&) = delete;
  ServerSocket& operator=(const ServerSocket&) = delete;

  // address "0.0.0.0" (or empty) is the IPv4 any-address. Port 0 takes a free one.
  bool bind(const std::string& address, uint16_t port);
  bool listen(int backlog);
  // The port actually bound (useful after binding port 0); 0 when unbound.
  uint16_t getPort() const;
  // The platform handle of the listening socket; -1 when closed.
  int getHandle() const { return mFd; }
  bool isListening() const { return mListening; }
  void close();

 private:
  int mFd = -1;
  bool mListening = false;
};

}  // namespace Tolvane
