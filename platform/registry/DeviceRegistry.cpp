#include "platform/registry/DeviceRegistry.h"

#include "platform/registry/RegistrySnapshot.h"

namespace vx {

DeviceRegistry& DeviceRegistry::shared() {
  static auto* registry = new DeviceRegistry();  // never destroyed: handles may outlive main
  return *registry;
}

DeviceRegistry::DeviceRegistry(std::string sysfsRoot) : sysfsRoot_(std::move(sysfsRoot)) {}

void DeviceRegistry::setSysfsRoot(std::string sysfsRoot) {
  std::lock_guard lock(mutex_);
  sysfsRoot_ = std::move(sysfsRoot);
}

std::string DeviceRegistry::sysfsRoot() const {
  std::lock_guard lock(mutex_);
  return sysfsRoot_;
}

RegistryHandle DeviceRegistry::getMatchingService(const std::string& className) {
  // Reading sysfs needs no lock; only the handle table does.
  std::shared_ptr<const RegistrySnapshot> snapshot = ScanSysfsRegistry(sysfsRoot());
  for (size_t node = 0; node < snapshot->nodes.size(); ++node) {
    if (!snapshot->conformsTo(node, className)) continue;
    std::lock_guard lock(mutex_);
    return insertLocked({snapshot, node, std::nullopt, 0});
  }
  return 0;
}

RegistryStatus DeviceRegistry::createIterator(RegistryHandle object, const std::string& plane,
                                              bool recursive, RegistryHandle* iterator) {
  if (plane != kRegistryServicePlane) return kRegistryErrorUnknownPlane;
  std::lock_guard lock(mutex_);
  const Entry* entry = findObjectLocked(object);
  if (!entry || !iterator) return kRegistryErrorInvalidHandle;
  const RegistrySnapshot& snapshot = *entry->snapshot;
  std::vector<size_t> items =
      recursive ? snapshot.descendants(entry->node) : snapshot.nodes[entry->node].children;
  const RegistryHandle handle = insertLocked({entry->snapshot, entry->node, std::move(items), 0});
  if (handle == 0) return kRegistryErrorNoResources;
  *iterator = handle;
  return kRegistrySuccess;
}

RegistryHandle DeviceRegistry::iteratorNext(RegistryHandle iterator) {
  std::lock_guard lock(mutex_);
  auto found = entries_.find(iterator);
  if (found == entries_.end() || !found->second.items) return 0;
  Entry& entry = found->second;
  if (entry.position >= entry.items->size()) return 0;
  const size_t node = (*entry.items)[entry.position++];
  return insertLocked({entry.snapshot, node, std::nullopt, 0});
}

bool DeviceRegistry::conformsTo(RegistryHandle object, const std::string& className) {
  std::lock_guard lock(mutex_);
  const Entry* entry = findObjectLocked(object);
  return entry && entry->snapshot->conformsTo(entry->node, className);
}

std::optional<PlistValue> DeviceRegistry::createProperty(RegistryHandle object,
                                                         const std::string& key) {
  std::lock_guard lock(mutex_);
  const Entry* entry = findObjectLocked(object);
  if (!entry) return std::nullopt;
  const PlistDictionary& properties = entry->snapshot->nodes[entry->node].properties;
  auto found = properties.find(key);
  if (found == properties.end()) return std::nullopt;
  return found->second;
}

RegistryStatus DeviceRegistry::release(RegistryHandle handle) {
  std::lock_guard lock(mutex_);
  return entries_.erase(handle) ? kRegistrySuccess : kRegistryErrorInvalidHandle;
}

size_t DeviceRegistry::openHandleCount() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

RegistryHandle DeviceRegistry::insertLocked(Entry entry) {
  // Handles count up and skip 0 and any still in use, so a stale handle is rarely reused.
  for (size_t tries = 0; tries < entries_.size() + 2; ++tries) {
    if (++lastHandle_ == 0) continue;
    if (entries_.try_emplace(lastHandle_, std::move(entry)).second) return lastHandle_;
  }
  return 0;
}

const DeviceRegistry::Entry* DeviceRegistry::findObjectLocked(RegistryHandle object) const {
  auto found = entries_.find(object);
  if (found == entries_.end() || found->second.items) return nullptr;
  return &found->second;
}

}  // namespace vx
