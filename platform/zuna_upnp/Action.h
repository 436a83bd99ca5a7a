// Typed UPnP actions bound to member functions of a service.
//
// Handler parameters are in- and out-arguments in declaration order: a value
// parameter is an in-argument, a reference parameter an out-argument. The
// supported types are std::string ("string") and unsigned ("ui4").
//
// Contract: actions are created on the main thread, handed to
// LocalService::addAction (which owns them from then on) and invoked by the
// stack on the service's dispatcher only, one at a time. The handler's
// UPnPReturn is the answer: success, or UPnP error <code> <description>. A
// handler must not throw.
#pragma once

#include <string>
#include <vector>

#include "zuna_upnp/Types.h"

namespace zuna_upnp {

struct ActionArgument {
  std::string name;
  std::string stateVariable;
};

class Action {
 public:
  explicit Action(std::string name);
  virtual ~Action();
  Action(const Action&) = delete;
  Action& operator=(const Action&) = delete;

  const std::string& getName() const { return mName; }
  // Space-separated "Argument:StateVariable" pairs; "" for none.
  void setInArgs(const std::string& declaration);
  void setOutArgs(const std::string& declaration);
  const std::vector<ActionArgument>& getInArgs() const { return mInArgs; }
  const std::vector<ActionArgument>& getOutArgs() const { return mOutArgs; }

  // True when signature (for instance "string, ui4, string &") names the
  // handler's parameter types in order, and the declared in- and
  // out-arguments match the handler's value and reference parameters in
  // number. A handler without parameters has nothing to check and passes.
  bool checkTypes(const std::string& signature) const;

  // Runs the handler with the in-argument texts in declaration order and
  // fills outputs in declaration order. An in-argument that does not convert
  // to its type answers 402 "Invalid Args" without running the handler.
  UPnPReturn invoke(const std::vector<std::string>& inputs, std::vector<std::string>& outputs);

 protected:
  // The handler's parameter types, "string" or "ui4", with " &" for references.
  virtual std::vector<std::string> parameterTypes() const = 0;
  // Calls the handler; args holds one text per parameter (outputs start "").
  virtual UPnPReturn call(std::vector<std::string>& args) = 0;

 private:
  std::string mName;
  std::vector<ActionArgument> mInArgs;
  std::vector<ActionArgument> mOutArgs;
};

namespace detail {

template <class T>
struct ArgType;
template <>
struct ArgType<std::string> {
  static const char* name() { return "string"; }
  static bool parse(const std::string& text, std::string& out) {
    out = text;
    return true;
  }
};
template <>
struct ArgType<std::string&> : ArgType<std::string> {
  static const char* name() { return "string &"; }
  static std::string format(const std::string& value) { return value; }
};
template <>
struct ArgType<unsigned> {
  static const char* name() { return "ui4"; }
  static bool parse(const std::string& text, unsigned& out);
};
template <>
struct ArgType<unsigned&> : ArgType<unsigned> {
  static const char* name() { return "ui4 &"; }
  static std::string format(unsigned value) { return std::to_string(value); }
};

// Holds one argument while the handler runs and converts it back.
template <class Param>
struct ArgSlot {
  std::string value;
  bool load(const std::string& text) { return ArgType<Param>::parse(text, value); }
  std::string& get() { return value; }
  std::string store() const { return value; }
};
template <>
struct ArgSlot<unsigned> {
  unsigned value = 0;
  bool load(const std::string& text) { return ArgType<unsigned>::parse(text, value); }
  unsigned get() const { return value; }
  std::string store() const { return std::to_string(value); }
};
template <>
struct ArgSlot<unsigned&> {
  unsigned value = 0;
  bool load(const std::string& /*text*/) { return true; }
  unsigned& get() { return value; }
  std::string store() const { return std::to_string(value); }
};
template <>
struct ArgSlot<std::string&> {
  std::string value;
  bool load(const std::string& /*text*/) { return true; }
  std::string& get() { return value; }
  std::string store() const { return value; }
};

UPnPReturn invalidArgs();

}  // namespace detail

template <class Service>
class ActionT0 : public Action {
 public:
  typedef UPnPReturn (Service::*Handler)();
  ActionT0(const std::string& name, Service* service, Handler handler)
      : Action(name), mService(service), mHandler(handler) {}

 protected:
  std::vector<std::string> parameterTypes() const override { return {}; }
  UPnPReturn call(std::vector<std::string>& /*args*/) override { return (mService->*mHandler)(); }

 private:
  Service* mService;
  Handler mHandler;
};

template <class Service, class A1>
class ActionT1 : public Action {
 public:
  typedef UPnPReturn (Service::*Handler)(A1);
  ActionT1(const std::string& name, Service* service, Handler handler)
      : Action(name), mService(service), mHandler(handler) {}

 protected:
  std::vector<std::string> parameterTypes() const override { return {detail::ArgType<A1>::name()}; }
  UPnPReturn call(std::vector<std::string>& args) override {
    detail::ArgSlot<A1> a1;
    if (!a1.load(args.at(0))) {
      return detail::invalidArgs();
    }
    UPnPReturn result = (mService->*mHandler)(a1.get());
    args[0] = a1.store();
    return result;
  }

 private:
  Service* mService;
  Handler mHandler;
};

template <class Service, class A1, class A2>
class ActionT2 : public Action {
 public:
  typedef UPnPReturn (Service::*Handler)(A1, A2);
  ActionT2(const std::string& name, Service* service, Handler handler)
      : Action(name), mService(service), mHandler(handler) {}

 protected:
  std::vector<std::string> parameterTypes() const override {
    return {detail::ArgType<A1>::name(), detail::ArgType<A2>::name()};
  }
  UPnPReturn call(std::vector<std::string>& args) override {
    detail::ArgSlot<A1> a1;
    detail::ArgSlot<A2> a2;
    if (!a1.load(args.at(0)) || !a2.load(args.at(1))) {
      return detail::invalidArgs();
    }
    UPnPReturn result = (mService->*mHandler)(a1.get(), a2.get());
    args[0] = a1.store();
    args[1] = a2.store();
    return result;
  }

 private:
  Service* mService;
  Handler mHandler;
};

template <class Service, class A1, class A2, class A3>
class ActionT3 : public Action {
 public:
  typedef UPnPReturn (Service::*Handler)(A1, A2, A3);
  ActionT3(const std::string& name, Service* service, Handler handler)
      : Action(name), mService(service), mHandler(handler) {}

 protected:
  std::vector<std::string> parameterTypes() const override {
    return {detail::ArgType<A1>::name(), detail::ArgType<A2>::name(), detail::ArgType<A3>::name()};
  }
  UPnPReturn call(std::vector<std::string>& args) override {
    detail::ArgSlot<A1> a1;
    detail::ArgSlot<A2> a2;
    detail::ArgSlot<A3> a3;
    if (!a1.load(args.at(0)) || !a2.load(args.at(1)) || !a3.load(args.at(2))) {
      return detail::invalidArgs();
    }
    UPnPReturn result = (mService->*mHandler)(a1.get(), a2.get(), a3.get());
    args[0] = a1.store();
    args[1] = a2.store();
    args[2] = a3.store();
    return result;
  }

 private:
  Service* mService;
  Handler mHandler;
};

}  // namespace zuna_upnp
