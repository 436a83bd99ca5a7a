#include <mutex>
#include <unordered_map>

#include "zuna_upnp/Types.h"

namespace zuna_upnp {

struct Vars::Impl {
  struct Entry {
    Var var;
    std::string value;
    bool changed = false;
  };

  // Action handlers, status threads and the GLib thread all read and write the
  // values, so every access goes through this lock.
  mutable std::mutex mutex;
  std::vector<Entry> entries;
  std::unordered_map<std::string, size_t> indexByName;

  Entry* find(const std::string& name) {
    auto found = indexByName.find(name);
    return found == indexByName.end() ? nullptr : &entries[found->second];
  }
  const Entry* find(const std::string& name) const {
    auto found = indexByName.find(name);
    return found == indexByName.end() ? nullptr : &entries[found->second];
  }
};

Vars::Vars() : mImpl(std::make_unique<Impl>()) {}

Vars::~Vars() = default;

bool Vars::add(const Var& var) {
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  if (mImpl->indexByName.count(var.getName()) != 0) {
    return false;
  }
  mImpl->indexByName.emplace(var.getName(), mImpl->entries.size());
  mImpl->entries.push_back(Impl::Entry{var, var.getDefault(), false});
  return true;
}

bool Vars::has(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  return mImpl->find(name) != nullptr;
}

std::vector<Var> Vars::getAll() const {
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  std::vector<Var> all;
  all.reserve(mImpl->entries.size());
  for (const Impl::Entry& entry : mImpl->entries) {
    all.push_back(entry.var);
  }
  return all;
}

bool Vars::setValue(const std::string& name, const std::string& value) {
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  Impl::Entry* entry = mImpl->find(name);
  if (entry == nullptr) {
    return false;
  }
  entry->value = value;
  // A repeated value is still an event: services pulse flags (true, then false).
  if (entry->var.isEvented()) {
    entry->changed = true;
  }
  return true;
}

std::string Vars::getValue(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  const Impl::Entry* entry = mImpl->find(name);
  return entry == nullptr ? std::string() : entry->value;
}

bool Vars::hasChanges() const {
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  for (const Impl::Entry& entry : mImpl->entries) {
    if (entry.changed) {
      return true;
    }
  }
  return false;
}

std::vector<std::pair<std::string, std::string>> Vars::takeChanges() {
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  std::vector<std::pair<std::string, std::string>> changes;
  for (Impl::Entry& entry : mImpl->entries) {
    if (entry.changed) {
      changes.emplace_back(entry.var.getName(), entry.value);
      entry.changed = false;
    }
  }
  return changes;
}

std::vector<std::pair<std::string, std::string>> Vars::getEventedValues() const {
  std::lock_guard<std::mutex> lock(mImpl->mutex);
  std::vector<std::pair<std::string, std::string>> values;
  for (const Impl::Entry& entry : mImpl->entries) {
    if (entry.var.isEvented()) {
      values.emplace_back(entry.var.getName(), entry.value);
    }
  }
  return values;
}

}  // namespace zuna_upnp
