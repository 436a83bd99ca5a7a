// An event agent that runs a closure, for work the stack hands to a
// service's dispatcher.
#pragma once

#include <functional>
#include <utility>

#include "tolvane/EventThread.h"

namespace zuna_upnp {

class FunctionAgent : public Tolvane::EventAgent {
 public:
  FunctionAgent(const void* receiver, std::function<void()> work)
      : Tolvane::EventAgent(receiver), mWork(std::move(work)) {}
  void run() override { mWork(); }

 private:
  std::function<void()> mWork;
};

}  // namespace zuna_upnp
