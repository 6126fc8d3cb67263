// The workspace of a device directory: the AppWorkspace that installs into the containers
// under a device root (the default workspace is the one of DeviceRoot()).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/workspace/AppWorkspace.h"
#include "platform/workspace/WorkspaceLayout.h"

namespace vx {

class VXGlobalConfiguration;

// Codes of the installation errors (VXInstallerErrorDomain).
enum WorkspaceErrorCode : int64_t {
  kWorkspaceInvalidPackageError = 101,    // nothing installable at the location
  kWorkspaceVerificationError = 102,      // identifier differs from what the caller expects
  kWorkspaceBlacklistedError = 103,       // the identifier may never be installed
  kWorkspaceAlreadyInstalledError = 104,  // a built-in application is as new or newer
  kWorkspaceContainerError = 105,         // a data or group container could not be made
  kWorkspaceInstallError = 106,           // the bundle could not be put in place
};

class DeviceWorkspace final : public AppWorkspace {
 public:
  // `deviceRoot` is "/" for the device itself. The built-in applications come from the
  // shared configuration when the root is the process's device root, else from a
  // configuration of that root.
  explicit DeviceWorkspace(const std::string& deviceRoot);
  ~DeviceWorkspace() override;

  bool applicationIsInstalled(const std::string& identifier) override;
  // Makes a missing data container or group container on the way (a built-in
  // application's data container is made on the first request).
  std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier) override;
  bool installApplication(const FileURL& location, const PlistDictionary& options, ErrorRef* error,
                          const InstallProgressCallback& progress) override;
  using AppWorkspace::installApplication;
  std::vector<std::string> installedBundleIdentifiers() override;
  void removeRetiredContainers() override;

  // What is known of an identifier without making anything: containers that do not exist
  // yet are absent from the proxy. For tools that only look.
  std::optional<BundleProxy> existingBundleProxy(const std::string& identifier);

  const WorkspaceLayout& layout() const { return layout_; }

 private:
  std::optional<BundleProxy> proxy(const std::string& identifier, bool makeContainers);
  VXGlobalConfiguration& configuration() { return *configuration_; }
  // One installation or container creation at a time in the process, whichever workspace
  // object asks: an installation cleans up what no one is assembling any more.
  static std::recursive_mutex& mutex();

  WorkspaceLayout layout_;
  std::unique_ptr<VXGlobalConfiguration> ownConfiguration_;
  VXGlobalConfiguration* configuration_;
};

}  // namespace vx
