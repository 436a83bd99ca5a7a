// Event threads, dispatchers and agents of the Tolvane framework.
//
// An agent binds a receiver object and one of its operations (with no or one
// argument). Agents are posted to a dispatcher, which runs them one at a time
// on its own thread: at once (FIFO) or after a delay in milliseconds measured
// on the framework clock. Delayed agents that fall due at the same moment run
// in the order they were posted.
//
// Contract:
// - Every operation of a dispatcher is safe from any thread, its own
//   included (send() on the own thread runs the agent directly instead of
//   deadlocking).
// - Agents are reference-counted: the dispatcher holds a reference from post
//   until the agent has run or was removed, so a poster may drop its own at
//   once. The agent's receiver is not owned: whoever destroys a receiver
//   first calls removeAgentsByReceiver() on every dispatcher it used.
// - Nothing is reported as an error: posts to a dispatcher that is shutting
//   down are dropped, and an agent that throws ends the process (agents must
//   not throw).
// - The daemon creates the event threads "CM_StatusThread" and
//   "CHDBlobWriter" on its main thread and uses the services' dispatchers of
//   the UPnP stack. It shuts down the blob writer's thread from its SIGTERM
//   thread, and waits with send() only from there (and from tests).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "tolvane/RefCount.h"

namespace Tolvane {

class EventAgent : public RefCount {
 public:
  explicit EventAgent(const void* receiver) : mReceiver(receiver) {}
  // The object the agent acts on; removeAgentsByReceiver() matches on it.
  const void* getReceiver() const { return mReceiver; }
  virtual void run() = 0;

 protected:
  ~EventAgent() override = default;

 private:
  const void* mReceiver;
};

// Agent whose poster does not wait. The receiver is the object pointer given
// to the constructor, exactly as passed (mind multiple inheritance: the same
// object seen through another base has another address).
class AsyncEventAgent : public EventAgent {
 public:
  template <class Receiver, class Result>
  AsyncEventAgent(Receiver* receiver, Result (Receiver::*method)())
      : EventAgent(receiver), mCall([receiver, method] { (receiver->*method)(); }) {}

  // The argument is copied into the agent when it is created.
  template <class Receiver, class Result, class Param, class Arg>
  AsyncEventAgent(Receiver* receiver, Result (Receiver::*method)(Param), Arg&& argument)
      : EventAgent(receiver), mCall([receiver, method, value = std::decay_t<Param>(std::forward<Arg>(argument))] {
          (receiver->*method)(value);
        }) {}

  void run() override { mCall(); }

 private:
  std::function<void()> mCall;
};

// Agent whose poster waits until it has run (EventDispatcher::send).
class SyncEventAgent : public EventAgent {
 public:
  template <class Receiver, class Result>
  SyncEventAgent(Receiver* receiver, Result (Receiver::*method)())
      : EventAgent(receiver), mCall([receiver, method] { (receiver->*method)(); }) {}

  void run() override { mCall(); }

 private:
  std::function<void()> mCall;
};

class EventDispatcher {
 public:
  virtual ~EventDispatcher() = default;

  // Queues the agent to run as soon as the agents queued before it have run.
  virtual void post(const SmartPtr<EventAgent>& agent) = 0;
  // Queues the agent to run once delayMs have passed on the framework clock.
  virtual void postDelayed(const SmartPtr<EventAgent>& agent, unsigned delayMs) = 0;
  // Removes every queued (not yet running) post of this agent. True if one was removed.
  virtual bool cancel(const SmartPtr<EventAgent>& agent) = 0;
  // Runs the agent on the dispatcher's thread and returns when it has run.
  // Called on that thread, it runs the agent directly.
  virtual void send(const SmartPtr<EventAgent>& agent) = 0;
  // True when the caller runs on the dispatcher's thread.
  virtual bool isCurrentThread() const = 0;
  // Removes every queued agent whose receiver is the given pointer. Called
  // from another thread, it also waits until an agent of that receiver that is
  // running at that moment has finished, so the receiver may be destroyed next.
  virtual void removeAgentsByReceiver(const void* receiver) = 0;
};

class EventThread : public EventDispatcher {
 public:
  // The thread starts at once. flags is reserved by the framework; pass 0.
  explicit EventThread(const std::string& name, int flags = 0);
  ~EventThread() override;  // shutdown()
  EventThread(const EventThread&) = delete;
  EventThread& operator=(const EventThread&) = delete;

  const std::string& getName() const;

  void post(const SmartPtr<EventAgent>& agent) override;
  void postDelayed(const SmartPtr<EventAgent>& agent, unsigned delayMs) override;
  bool cancel(const SmartPtr<EventAgent>& agent) override;
  void send(const SmartPtr<EventAgent>& agent) override;
  bool isCurrentThread() const override;
  void removeAgentsByReceiver(const void* receiver) override;

  // Lets the agent that is running finish, drops every queued agent and joins
  // the thread (called on the thread itself, it cannot join and lets the
  // thread end on its own). Idempotent. Posts made afterwards are dropped; a send()
  // afterwards returns without running its agent.
  void shutdown();

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace Tolvane
