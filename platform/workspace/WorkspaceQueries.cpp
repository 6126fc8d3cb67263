#include <sys/stat.h>

#include <set>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/bundle/BundleHandle.h"
#include "platform/log/InstallerLog.h"
#include "platform/workspace/Workspace.h"
#include "platform/workspace/WorkspaceContainers.h"
#include "platform/workspace/WorkspaceIndexCache.h"
#include "platform/workspace/WorkspacePackage.h"
#include "platform/workspace/WorkspaceRegistry.h"

namespace vx {
namespace {

constexpr const char* kProxyFunction = "-[DeviceWorkspace bundleProxyForIdentifier:]";

bool IsDirectory(const FileURL& url) {
  struct stat st {};
  return ::lstat(url.fileSystemRepresentation(), &st) == 0 && S_ISDIR(st.st_mode);
}

const BundleInfoRecord* BuiltInRecord(const BundleMapRef& map, const std::string& identifier) {
  if (!map) return nullptr;
  auto it = map->find(identifier);
  return it == map->end() ? nullptr : &it->second;
}

// A built-in bundle is read where it lies; its groups are those its information list names.
std::vector<std::string> BuiltInAppGroups(const FileURL& bundle) {
  std::vector<std::string> groups;
  auto handle = BundleHandle::open(bundle);
  if (!handle || !handle->infoDictionary()) return groups;
  const auto declared = handle->infoDictionary()->find("VXAppGroups");
  if (declared == handle->infoDictionary()->end() || !declared->second.array()) return groups;
  for (const PlistValue& group : *declared->second.array()) {
    if (group.string() && !group.string()->empty()) groups.push_back(*group.string());
  }
  return groups;
}

}  // namespace

bool DeviceWorkspace::applicationIsInstalled(const std::string& identifier) {
  std::lock_guard lock(mutex());
  return WorkspaceIndexCache::forLayout(layout_).current().bundle(identifier) ||
         BuiltInRecord(configuration().systemAppBundleIDToInfoMap(), identifier);
}

std::optional<BundleProxy> DeviceWorkspace::bundleProxyForIdentifier(
    const std::string& identifier) {
  return proxy(identifier, true);
}

std::optional<BundleProxy> DeviceWorkspace::existingBundleProxy(const std::string& identifier) {
  return proxy(identifier, false);
}

std::vector<std::string> DeviceWorkspace::installedBundleIdentifiers() {
  std::lock_guard lock(mutex());
  std::set<std::string> identifiers;
  for (const auto& [identifier, container] :
       WorkspaceIndexCache::forLayout(layout_).current().bundles) {
    identifiers.insert(identifier);
  }
  if (BundleMapRef builtIn = configuration().systemAppBundleIDToInfoMap()) {
    for (const auto& [identifier, record] : *builtIn) identifiers.insert(identifier);
  }
  return {identifiers.begin(), identifiers.end()};
}

std::optional<BundleProxy> DeviceWorkspace::proxy(const std::string& identifier,
                                                  bool makeContainers) {
  std::lock_guard lock(mutex());
  WorkspaceIndexCache& cache = WorkspaceIndexCache::forLayout(layout_);
  const WorkspaceIndex& index = cache.current();
  BundleProxy proxy;
  proxy.bundleIdentifier = identifier;
  std::vector<std::string> groups;
  ContainerClass dataClass = ContainerClass::Data;

  if (const IndexedContainer* installed = index.bundle(identifier)) {
    proxy.bundleType = installed->record.bundleType;
    proxy.bundleVersion = installed->record.bundleVersion;
    proxy.bundleURL = InstalledBundleURL(*installed);
    proxy.bundleContainerURL = installed->url;
    groups = installed->record.appGroups;
    if (proxy.bundleType == "VPNPlugin") dataClass = ContainerClass::PluginData;
  } else if (const BundleInfoRecord* builtIn =
                 BuiltInRecord(configuration().systemAppBundleIDToInfoMap(), identifier)) {
    const PlistValue record(*builtIn);
    const PlistValue* url = record.find(kVXBundleURLKey);
    if (!url || !url->url()) return std::nullopt;
    proxy.bundleType = "System";
    proxy.bundleVersion = BundleVersionText(record.find("KBBundleVersion"));
    proxy.bundleURL = *url->url();
    groups = BuiltInAppGroups(*proxy.bundleURL);
  } else {
    return std::nullopt;
  }
  proxy.foundBackingBundle = IsDirectory(*proxy.bundleURL);

  std::map<std::string, FileURL> groupURLs;
  bool complete = true;
  if (const IndexedContainer* data = index.dataContainer(identifier)) {
    proxy.dataContainerURL = data->url;
  } else {
    complete = false;
  }
  for (const std::string& group : groups) {
    if (auto url = index.groupContainer(group)) {
      groupURLs.emplace(group, *url);
    } else {
      complete = false;
    }
  }
  if (complete || !makeContainers) {
    proxy.groupContainerURLs = std::move(groupURLs);
    return proxy;
  }

  // Something is missing: make it under the writers' lock, against the index as it is then
  // (another process may have made it meanwhile).
  ErrorRef error;
  std::optional<WorkspaceIndexCache::Change> change = cache.begin(&error);
  if (!change) {
    VX_INSTALLER_LOG(3, kProxyFunction, "Failed to lock the workspace for %@: %@", identifier,
                     error);
    return proxy;
  }
  proxy.dataContainerURL =
      EnsureDataContainer(layout_, change->index(), identifier, dataClass, DataDefaults::Made,
                          &error);
  if (!proxy.dataContainerURL) {
    change->failed();
    VX_INSTALLER_LOG(3, kProxyFunction, "Failed to make the data container of %@: %@", identifier,
                     error);
  }
  groupURLs.clear();
  for (const std::string& group : groups) {
    auto url = EnsureGroupContainer(layout_, change->index(), group, &error);
    if (!url) {
      change->failed();
      VX_INSTALLER_LOG(3, kProxyFunction, "Failed to make the container of group %@ for %@: %@",
                       group, identifier, error);
      return proxy;  // without group containers: they could not all be had
    }
    groupURLs.emplace(group, *url);
  }
  proxy.groupContainerURLs = std::move(groupURLs);
  return proxy;
}

void DeviceWorkspace::removeRetiredContainers() {
  std::lock_guard lock(mutex());
  WorkspaceIndexCache::forLayout(layout_).removeRetired();
}

}  // namespace vx
