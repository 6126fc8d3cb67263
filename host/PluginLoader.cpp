#include "host/PluginLoader.h"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>

namespace vx::host {
namespace {

std::string LastLoaderError() {
  const char* text = dlerror();
  return text ? text : "unknown error";
}

std::optional<LoadedPlugin> LoadPlugin(const std::string& path, const char* factorySymbol,
                                       std::string* problem) {
  dlerror();
  ModuleHandle module(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!module) {
    *problem = "cannot load plug-in " + path + ": " + LastLoaderError();
    return std::nullopt;
  }
  dlerror();
  void* symbol = dlsym(module.get(), factorySymbol);
  if (!symbol) {
    *problem = "plug-in " + path + " does not export " + factorySymbol + ": " +
               LastLoaderError();
    return std::nullopt;
  }
  auto factory = reinterpret_cast<VXCreateMigratorPluginFunction>(symbol);
  std::unique_ptr<MigratorPlugin> plugin(factory());
  if (!plugin) {
    *problem = "plug-in " + path + " refused to start (see the log for why)";
    return std::nullopt;
  }
  return LoadedPlugin{path, std::move(module), std::move(plugin)};
}

}  // namespace

void ModuleCloser::operator()(void* handle) const {
  if (handle) dlclose(handle);
}

std::string DefaultPluginDirectory() {
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return "lib/vxmigrate/plugins";
  return (self.parent_path().parent_path() / "lib" / "vxmigrate" / "plugins").string();
}

std::optional<std::vector<LoadedPlugin>> LoadPlugins(const std::string& directory,
                                                     std::string* problem) {
  return LoadPlugins(directory, kVXCreateMigratorPluginSymbol, problem);
}

std::optional<std::vector<LoadedPlugin>> LoadPlugins(const std::string& directory,
                                                     const char* factorySymbol,
                                                     std::string* problem) {
  std::error_code ec;
  std::vector<std::string> paths;
  for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->path().extension() == ".so") paths.push_back(it->path().string());
  }
  if (ec) {
    *problem = "cannot read plug-in directory " + directory + ": " + ec.message();
    return std::nullopt;
  }
  if (paths.empty()) {
    *problem = "no plug-in (*.so) in " + directory;
    return std::nullopt;
  }
  std::sort(paths.begin(), paths.end());

  std::vector<LoadedPlugin> plugins;
  for (const std::string& path : paths) {
    auto plugin = LoadPlugin(path, factorySymbol, problem);
    if (!plugin) return std::nullopt;
    plugins.push_back(std::move(*plugin));
  }
  return plugins;
}

}  // namespace vx::host
