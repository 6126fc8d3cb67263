// platform/registry: the device registry and mount table, from which disk images are found.
// Uses platform/files and the shared types.
//
// The device registry: the platform's tree of device objects, reached through handles.
// Objects and iterators are unsigned 32-bit handles (0 is none) that the caller releases;
// calls that can fail return a status, 0 for success.
//
// Each `getMatchingService` reads the registry afresh (see RegistrySnapshot.h for what it
// holds on Linux); the objects and iterators reached from the returned object all belong to
// that reading, which lives until its last handle is released.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/types/PlistValue.h"

namespace vx {

using RegistryHandle = uint32_t;
using RegistryStatus = int32_t;

inline constexpr const char* kRegistryServicePlane = "KzService";
inline constexpr RegistryStatus kRegistrySuccess = 0;
inline constexpr RegistryStatus kRegistryErrorInvalidHandle = static_cast<int32_t>(0xE0564801);
inline constexpr RegistryStatus kRegistryErrorUnknownPlane = static_cast<int32_t>(0xE0564802);
inline constexpr RegistryStatus kRegistryErrorNoResources = static_cast<int32_t>(0xE0564803);

struct RegistrySnapshot;

class DeviceRegistry {
 public:
  // The process's registry, read from "/sys" unless told otherwise.
  static DeviceRegistry& shared();

  explicit DeviceRegistry(std::string sysfsRoot = "/sys");
  DeviceRegistry(const DeviceRegistry&) = delete;
  DeviceRegistry& operator=(const DeviceRegistry&) = delete;

  // Where later readings come from; handles already given out keep their reading.
  void setSysfsRoot(std::string sysfsRoot);
  std::string sysfsRoot() const;

  // The first object, in registry order, that conforms to `className`; 0 when none does.
  RegistryHandle getMatchingService(const std::string& className);
  // Over the object's direct children, or over all its descendants (depth first, the
  // object itself not included), in `plane`.
  RegistryStatus createIterator(RegistryHandle object, const std::string& plane, bool recursive,
                                RegistryHandle* iterator);
  // The next object (a new handle to release), or 0 at the end.
  RegistryHandle iteratorNext(RegistryHandle iterator);
  // Of the class or of a class derived from it.
  bool conformsTo(RegistryHandle object, const std::string& className);
  // A copy the caller owns, or nothing when the object has no such property.
  std::optional<PlistValue> createProperty(RegistryHandle object, const std::string& key);
  RegistryStatus release(RegistryHandle handle);

  // Handles not yet released: a caller that releases all it takes leaves this unchanged.
  size_t openHandleCount() const;

 private:
  struct Entry {
    std::shared_ptr<const RegistrySnapshot> snapshot;
    size_t node = 0;                           // the object, or the node iterated over
    std::optional<std::vector<size_t>> items;  // an iterator's objects; none for an object
    size_t position = 0;
  };

  RegistryHandle insertLocked(Entry entry);
  const Entry* findObjectLocked(RegistryHandle object) const;

  mutable std::mutex mutex_;
  std::string sysfsRoot_;
  std::unordered_map<RegistryHandle, Entry> entries_;
  RegistryHandle lastHandle_ = 0;
};

}  // namespace vx
