#include "platform/workspace/Workspace.h"

#include <atomic>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/system/DeviceRoot.h"

namespace vx {
namespace {

std::atomic<AppWorkspace*> gSubstitute{nullptr};

}  // namespace

DeviceWorkspace::DeviceWorkspace(const std::string& deviceRoot) : layout_(deviceRoot) {
  // The shared configuration knows only the process's own device; another root gets a
  // configuration of its own so that its built-in applications are its own.
  if (layout_.deviceRoot() == DeviceRoot()) {
    configuration_ = &VXGlobalConfiguration::sharedInstance();
  } else {
    ownConfiguration_ = std::make_unique<VXGlobalConfiguration>(layout_.deviceRoot());
    configuration_ = ownConfiguration_.get();
  }
}

DeviceWorkspace::~DeviceWorkspace() = default;

std::recursive_mutex& DeviceWorkspace::mutex() {
  static std::recursive_mutex* const shared = new std::recursive_mutex;
  return *shared;
}

AppWorkspace& AppWorkspace::defaultWorkspace() {
  if (AppWorkspace* substitute = gSubstitute.load()) return *substitute;
  // Never destroyed, like the other process-wide objects of the platform layer.
  static DeviceWorkspace* const workspace = new DeviceWorkspace(DeviceRoot());
  return *workspace;
}

AppWorkspace* AppWorkspace::setDefaultWorkspaceForTesting(AppWorkspace* workspace) {
  // Handing back the previous one (null restores the device's own) undoes the change.
  AppWorkspace* previous = &defaultWorkspace();
  gSubstitute.store(workspace);
  return previous;
}

}  // namespace vx
