// The one GLib main-loop thread of the process, shared by the web server and
// the UPnP stack: it owns every libsoup, GUPnP and GSSDP object. Other
// threads hand it work.
#pragma once

#include <glib.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <thread>

namespace zuna_http::host {

// The libraries on the loop report through GLib's logging; the messages of
// these log domains go to the daemon's log with everything else from now on.
// A domain already forwarded is left as it is.
void forwardLibraryLogging(std::initializer_list<const char*> domains);

class MainLoop {
 public:
  // The running loop, started by its first user and stopped when the last
  // reference is dropped.
  static std::shared_ptr<MainLoop> acquire();

  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  GMainContext* context() const { return mContext; }
  bool isLoopThread() const;
  // Runs work on the loop thread later (at once when called on it).
  void invoke(std::function<void()> work);
  // Queues work behind everything queued before it, even on the loop thread.
  void post(std::function<void()> work);
  // Runs work on the loop thread and returns when it has run.
  void invokeAndWait(const std::function<void()>& work);

 private:
  MainLoop();
  void run();

  GMainContext* mContext;
  GMainLoop* mLoop;
  std::thread mThread;
};

}  // namespace zuna_http::host
