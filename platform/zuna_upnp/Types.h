// Basic types of the UPnP stack: results, type ids and state variables.
//
// Contract: UPnPReturn, TypeID and Var are plain values. Vars is the one
// shared object here: every operation takes its own lock, so services set
// variables on their dispatchers (and on the main thread while they are
// built) while the stack reads them on its network thread, for the first
// event of a new subscriber.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zuna_upnp {

// Result of an action handler. kind 0 is success (description "", code 0);
// any other kind is a failure answered as UPnP error <code> <description>.
struct UPnPReturn {
  UPnPReturn() = default;
  UPnPReturn(int resultKind, std::string text, int errorCode)
      : kind(resultKind), description(std::move(text)), code(errorCode) {}
  bool isSuccess() const { return kind == 0; }

  int kind = 0;
  std::string description;
  int code = 0;
};

// "urn:<domain>:<kind>:<name>:<version>", for instance
// urn:schemas-upnp-org:device:ManageableDevice:1.
class TypeID {
 public:
  enum Kind { DEVICE, SERVICE };

  TypeID() = default;
  TypeID(std::string name, std::string domain, int version, Kind kind)
      : mName(std::move(name)), mDomain(std::move(domain)), mVersion(version), mKind(kind) {}

  const std::string& getName() const { return mName; }
  const std::string& getDomain() const { return mDomain; }
  int getVersion() const { return mVersion; }
  Kind getKind() const { return mKind; }
  std::string toString() const {
    return "urn:" + mDomain + (mKind == DEVICE ? ":device:" : ":service:") + mName + ":" + std::to_string(mVersion);
  }

 private:
  std::string mName;
  std::string mDomain;
  int mVersion = 1;
  Kind mKind = SERVICE;
};

// A state variable: name, UPnP data type ("string", "ui4", "i4", "boolean"),
// default value and whether changes are evented.
class Var {
 public:
  Var(std::string name, std::string type, std::string defaultValue, bool evented)
      : mName(std::move(name)), mType(std::move(type)), mDefault(std::move(defaultValue)), mEvented(evented) {}
  const std::string& getName() const { return mName; }
  const std::string& getType() const { return mType; }
  const std::string& getDefault() const { return mDefault; }
  bool isEvented() const { return mEvented; }

 private:
  std::string mName;
  std::string mType;
  std::string mDefault;
  bool mEvented;
};

// The state variables of one service, in declaration order, with their
// current values (the default until set). Safe to use from any thread.
class Vars {
 public:
  Vars();
  ~Vars();
  Vars(const Vars&) = delete;
  Vars& operator=(const Vars&) = delete;

  // Adds a variable; a second one of the same name is ignored (false).
  bool add(const Var& var);
  bool has(const std::string& name) const;
  std::vector<Var> getAll() const;
  // Sets the value; an evented variable is marked changed (also when the
  // value is the same). False when the variable is unknown.
  bool setValue(const std::string& name, const std::string& value);
  std::string getValue(const std::string& name) const;
  bool hasChanges() const;
  // The changed evented variables with their current values, in declaration
  // order; clears the marks.
  std::vector<std::pair<std::string, std::string>> takeChanges();
  // Every evented variable with its current value, in declaration order.
  std::vector<std::pair<std::string, std::string>> getEventedValues() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace zuna_upnp
