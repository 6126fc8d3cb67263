// `vxmigrate apps`: what the device's workspace knows, one entry per identifier. It only
// looks: containers that do not exist yet (a built-in application's data container before
// its first use) are shown as absent rather than made.
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "host/Command.h"
#include "host/DisplayText.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/Workspace.h"

namespace vx::host {
namespace {

constexpr int kExitUsage = 2;

struct AppsOptions {
  std::optional<std::string> root;
  bool json = false;
};

std::string KindOf(const BundleProxy& proxy) {
  if (proxy.bundleType == "Placeholder") return "placeholder";
  if (proxy.bundleType == "System") return "built-in";
  if (proxy.bundleType == "VPNPlugin") return "vpn-plugin";
  return "user";
}

nlohmann::ordered_json PathOrNull(const std::optional<FileURL>& url) {
  return url ? nlohmann::ordered_json(url->path()) : nlohmann::ordered_json(nullptr);
}

// Placeholders whose real bundle a failed installation left in the recovery area, by
// identifier: the newest entry of each.
std::map<std::string, std::string> RecoverableBundles() {
  std::map<std::string, std::string> recoverable;
  for (const RecoveredEntry& entry : RecoveredEntries()) {
    if (entry.record.course == kRecoveryCourseInstallFailed && !entry.record.identifier.empty()) {
      recoverable[entry.record.identifier] = entry.name;
    }
  }
  return recoverable;
}

nlohmann::ordered_json Entry(const BundleProxy& proxy, const std::string* recoverable) {
  nlohmann::ordered_json groups = nlohmann::ordered_json::object();
  if (proxy.groupContainerURLs) {
    for (const auto& [group, url] : *proxy.groupContainerURLs) groups[group] = url.path();
  }
  return {{"identifier", proxy.bundleIdentifier},
          {"kind", KindOf(proxy)},
          {"version", proxy.bundleVersion ? nlohmann::ordered_json(*proxy.bundleVersion)
                                          : nlohmann::ordered_json(nullptr)},
          {"bundlePath", PathOrNull(proxy.bundleURL)},
          {"bundleContainerPath", PathOrNull(proxy.bundleContainerURL)},
          {"dataContainerPath", PathOrNull(proxy.dataContainerURL)},
          {"groupContainers", std::move(groups)},
          {"recoverableBundle", recoverable ? nlohmann::ordered_json(*recoverable)
                                            : nlohmann::ordered_json(nullptr)}};
}

// Identifiers, versions and group names are the applications' own: escaped.
void PrintText(const BundleProxy& proxy, const std::string* recoverable, std::ostream& out) {
  auto path = [](const std::optional<FileURL>& url) {
    return url ? EscapedText(url->path()) : "-";
  };
  out << EscapedText(proxy.bundleIdentifier) << "  " << KindOf(proxy)
      << (recoverable ? " with a recoverable bundle" : "") << "  "
      << EscapedText(proxy.bundleVersion.value_or("-")) << "\n"
      << "  bundle:           " << path(proxy.bundleURL) << "\n"
      << "  bundle container: " << path(proxy.bundleContainerURL) << "\n"
      << "  data container:   " << path(proxy.dataContainerURL) << "\n";
  if (proxy.groupContainerURLs) {
    for (const auto& [group, url] : *proxy.groupContainerURLs) {
      out << "  group " << EscapedText(group) << ": " << EscapedText(url.path()) << "\n";
    }
  }
  if (recoverable) {
    out << "  recover with:     vxmigrate recover " << EscapedText(*recoverable) << "\n";
  }
}

int RunApps(const AppsOptions& options) {
  if (options.root && !SetDeviceRoot(*options.root)) {
    std::cerr << "vxmigrate apps: cannot use " << *options.root << " as the device root\n";
    return kExitUsage;
  }
  DeviceWorkspace workspace(DeviceRoot());
  const std::map<std::string, std::string> recoverable = RecoverableBundles();
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const std::string& identifier : workspace.installedBundleIdentifiers()) {
    auto proxy = workspace.existingBundleProxy(identifier);
    if (!proxy) continue;
    auto found = recoverable.find(identifier);
    const std::string* entry =
        found != recoverable.end() && KindOf(*proxy) == "placeholder" ? &found->second : nullptr;
    if (options.json) {
      list.push_back(Entry(*proxy, entry));
    } else {
      PrintText(*proxy, entry, std::cout);
    }
  }
  // ASCII only: controls, DEL and C1 come out as JSON escapes, and bytes that are not UTF-8
  // do not stop the listing.
  if (options.json) {
    std::cout << JsonText(list)
              << std::endl;
  }
  return 0;
}

const CommandRegistration kApps(30, [](CLI::App& app, int* exitStatus) {
  auto options = std::make_shared<AppsOptions>();
  CLI::App* command =
      app.add_subcommand("apps", "List the applications the device's workspace knows");
  command->add_option("--root", options->root, "Directory holding the device's file system")
      ->check(CLI::ExistingDirectory);
  command->add_flag("--json", options->json, "Print a JSON array on standard output");
  command->callback([options, exitStatus] { *exitStatus = RunApps(*options); });
});

}  // namespace
}  // namespace vx::host
