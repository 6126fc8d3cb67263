// Finds the migration plug-ins in a directory, loads each module and creates its plug-in
// through the factory the module exports.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/MigratorPlugin.h"

namespace vx::host {

struct ModuleCloser {
  void operator()(void* handle) const;
};
using ModuleHandle = std::unique_ptr<void, ModuleCloser>;

struct LoadedPlugin {
  std::string modulePath;
  // Declared first so that it goes last: the plug-in's code lives in the module.
  ModuleHandle module;
  std::unique_ptr<MigratorPlugin> plugin;
};

// <directory of the running executable>/../lib/vxmigrate/plugins, the place an
// installation keeps them.
std::string DefaultPluginDirectory();

// Every "*.so" of `directory`, in name order. Nothing, with a readable `*problem`, when the
// directory is missing or holds no module, or when a module cannot be loaded, lacks the
// factory, or refuses to create its plug-in: a migration must not run with a part missing.
std::optional<std::vector<LoadedPlugin>> LoadPlugins(const std::string& directory,
                                                     std::string* problem);
// The same through another factory the modules export, such as the planning one
// (kVXCreateMigratorPluginForPlanningSymbol).
std::optional<std::vector<LoadedPlugin>> LoadPlugins(const std::string& directory,
                                                     const char* factorySymbol,
                                                     std::string* problem);

}  // namespace vx::host
