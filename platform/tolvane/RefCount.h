// Intrusive reference counting of the Tolvane framework.
//
// Contract: ref() and unref() are safe from any thread; the thread that drops
// the last reference deletes the object. A SmartPtr object itself belongs to
// one thread at a time, like any value. Objects shared between the daemon's
// components (the device, the network monitor, event agents, the settings
// manager) are held this way; nothing else may delete them.
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace Tolvane {

// Base of every object shared between components. The object deletes itself
// when the last reference is dropped; it starts with no reference at all, so
// the first SmartPtr that takes it owns it.
class RefCount {
 public:
  RefCount() = default;
  RefCount(const RefCount&) = delete;
  RefCount& operator=(const RefCount&) = delete;

  void ref() const { mRefs.fetch_add(1, std::memory_order_relaxed); }
  void unref() const {
    if (mRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      destroy();
    }
  }
  int getRefCount() const { return mRefs.load(std::memory_order_acquire); }

 protected:
  virtual ~RefCount() = default;
  // Deletes the complete object through the most derived class, whichever
  // base held the last reference. Out of line in the framework library.
  virtual void destroy() const;

 private:
  mutable std::atomic<int> mRefs{0};
};

// Counted reference to a RefCount-derived object.
template <class T>
class SmartPtr {
 public:
  SmartPtr() = default;
  SmartPtr(std::nullptr_t) {}  // NOLINT(google-explicit-constructor)
  explicit SmartPtr(T* object) : mObject(object) { acquire(); }
  SmartPtr(const SmartPtr& other) : mObject(other.mObject) { acquire(); }
  SmartPtr(SmartPtr&& other) noexcept : mObject(other.mObject) { other.mObject = nullptr; }
  template <class U>
  SmartPtr(const SmartPtr<U>& other) : mObject(other.get()) {  // NOLINT(google-explicit-constructor)
    acquire();
  }
  ~SmartPtr() { release(); }

  SmartPtr& operator=(const SmartPtr& other) {
    SmartPtr copy(other);
    swap(copy);
    return *this;
  }
  SmartPtr& operator=(SmartPtr&& other) noexcept {
    SmartPtr moved(std::move(other));
    swap(moved);
    return *this;
  }
  SmartPtr& operator=(std::nullptr_t) {
    reset();
    return *this;
  }

  void reset(T* object = nullptr) {
    SmartPtr replacement(object);
    swap(replacement);
  }
  void swap(SmartPtr& other) noexcept { std::swap(mObject, other.mObject); }

  T* get() const { return mObject; }
  T* operator->() const { return mObject; }
  T& operator*() const { return *mObject; }
  explicit operator bool() const { return mObject != nullptr; }
  bool isNull() const { return mObject == nullptr; }

  friend bool operator==(const SmartPtr& a, const SmartPtr& b) { return a.mObject == b.mObject; }
  friend bool operator!=(const SmartPtr& a, const SmartPtr& b) { return a.mObject != b.mObject; }

 private:
  void acquire() {
    if (mObject != nullptr) {
      mObject->ref();
    }
  }
  void release() {
    if (mObject != nullptr) {
      mObject->unref();
      mObject = nullptr;
    }
  }

  T* mObject = nullptr;
};

}  // namespace Tolvane
