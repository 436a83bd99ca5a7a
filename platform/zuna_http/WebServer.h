// The UPnP stack's HTTP web server: providers answer GET requests on raw
// connections, writing the response head and body themselves.
//
// Contract:
// - One server per process (getSingleton(), never null, not destroyed by the
//   daemon). registerProvider, unregisterSocket and unregisterProvider are
//   safe from any thread.
// - A request reaches a provider on a worker thread of the server, already
//   parsed (method and normalised path); the provider owns neither the socket
//   nor the request, which stay valid until handleRequest returns. Several
//   requests may run in one provider at once. The server's network thread
//   never waits for a provider, so a provider may block its worker (the
//   daemon runs a collection script of up to 10 s there). The host server has
//   at most four workers, shared with the UPnP stack's own HTTP port.
// - Threads: the daemon registers its provider and socket on the main thread
//   and never unregisters them while it runs; unregisterProvider must not be
//   called from the provider's own handleRequest (it would wait for itself).
// - Providers and listening sockets are not owned: a provider must stay alive
//   until unregisterProvider has returned (which waits for its requests), a
//   socket until unregisterSocket has returned.
// - Errors: registerProvider returns false (the daemon logs it); writes to a
//   peer that went away return fewer bytes or a negative count, never raise
//   SIGPIPE.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Tolvane {
class ServerSocket;
}

namespace zuna_http {

// Byte stream of one connection, used only by the worker thread that runs
// the request.
class ReaderWriter {
 public:
  virtual ~ReaderWriter() = default;
  // Bytes written (all of them unless the peer went away), or negative on error.
  virtual int64_t write(const void* data, size_t length) = 0;
  virtual int64_t read(void* buffer, size_t length) = 0;
};

// A response or request head: a first line and header fields in the order added.
class WebHeaderBase {
 public:
  virtual ~WebHeaderBase() = default;
  void addField(const std::string& name, const std::string& value) { mFields.emplace_back(name, value); }
  const std::vector<std::pair<std::string, std::string>>& getFields() const { return mFields; }
  virtual std::string getFirstLine() const = 0;
  // Writes the first line, the fields and the blank line that ends the head.
  bool send(ReaderWriter* stream) const;

 private:
  std::vector<std::pair<std::string, std::string>> mFields;
};

class WebResponse : public WebHeaderBase {
 public:
  explicit WebResponse(int status) : mStatus(status) {}
  int getStatus() const { return mStatus; }
  std::string getFirstLine() const override;  // "HTTP/1.1 <status> <reason>"

 private:
  int mStatus;
};

class WebRequest {
 public:
  WebRequest(std::string method, std::string path) : mMethod(std::move(method)), mPath(std::move(path)) {}
  // The normalised, percent-decoded path, without query.
  const std::string& getPath() const { return mPath; }
  const std::string& getMethod() const { return mMethod; }

 private:
  std::string mMethod;
  std::string mPath;
};

// One accepted connection handed to a provider. The provider writes a head
// (send) and then the body (write), and closes it, all on the worker thread
// that runs the request. A write blocks until all of it is handed to the
// network (the host server gives up on a peer that takes nothing for 60 s).
class WebSocket {
 public:
  virtual ~WebSocket() = default;
  virtual bool send(const WebHeaderBase& head) = 0;
  virtual int64_t write(const void* data, size_t length) = 0;
  virtual ReaderWriter* getReaderWriter() = 0;
  virtual void close() = 0;
};

class WebServiceProvider {
 public:
  virtual ~WebServiceProvider() = default;
  // Runs on a worker thread of the web server.
  virtual void handleRequest(WebSocket* socket, WebRequest* request) = 0;
};

class WebServer {
 public:
  enum Method { METHOD_UNKNOWN, METHOD_GET, METHOD_HEAD, METHOD_POST };

  static WebServer* getSingleton();
  static Method getMethod(const std::string& name);

  // Serves requests of that method below path (an empty path: every path) on
  // the listening socket, handing each to the provider on a worker thread.
  // A request whose path leaves the server's root is answered 404 and never
  // reaches a provider.
  virtual bool registerProvider(WebServiceProvider* provider, Tolvane::ServerSocket* socket, Method method,
                                const std::string& path) = 0;
  // Stops serving the socket; requests already handed out finish.
  virtual void unregisterSocket(Tolvane::ServerSocket* socket) = 0;
  // Removes the provider everywhere and waits for its running requests.
  virtual void unregisterProvider(WebServiceProvider* provider) = 0;

 protected:
  virtual ~WebServer() = default;
};

}  // namespace zuna_http
