// `vxmigrate recover`: what a migration kept in the recovery area rather than delete it, and
// the way back: a bundle whose installation failed is installed again over its placeholder
// (its data container, which already holds its data, stays), and an entry the user no longer
// wants is deleted only when asked twice.
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "host/Command.h"
#include "host/LogSetup.h"
#include "host/PluginLoader.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/AppWorkspace.h"
#include "platform/workspace/Workspace.h"

namespace vx::host {
namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
// The install type a migration gives the bundles it installs; a recovered bundle finishes
// that migration.
const std::set<std::string> kMigrationFiles{"com.tarsel.velotrix.container_migrator.plist"};
// What the migration reads in a group's entry of the old install map: the application whose
// group container takes the group's items.
constexpr const char* kGroupOwnerKey = "MigratingIdentifier";

struct RecoverOptions {
  std::optional<std::string> root;
  std::optional<std::string> entry;
  bool json = false;
  bool purge = false;
  bool yes = false;
};

nlohmann::ordered_json Json(const RecoveredEntry& entry) {
  return {{"name", entry.name},
          {"identifier", entry.record.identifier},
          {"course", entry.record.course},
          {"originalPath", entry.record.originalPath},
          {"time", entry.time},
          {"content", entry.content.path()},
          {"items", entry.items}};
}

int List(bool json) {
  const std::vector<RecoveredEntry> entries = RecoveredEntries();
  if (json) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const RecoveredEntry& entry : entries) list.push_back(Json(entry));
    std::cout << list.dump(2) << std::endl;
    return 0;
  }
  if (entries.empty()) {
    std::cout << "The recovery area " << RecoveryAreaURL().path() << " holds nothing.\n";
    return 0;
  }
  for (const RecoveredEntry& entry : entries) {
    std::cout << entry.name << "  " << entry.record.course << "  "
              << (entry.record.identifier.empty() ? "-" : entry.record.identifier) << "  "
              << entry.time << "\n  from " << entry.record.originalPath << "\n  now  "
              << entry.content.path() << "\n";
  }
  return 0;
}

// The package a failed installation left: "Staging" inside the container that was kept. A
// failure before the bundle was staged left it beside its data instead; it is staged here the
// same way, by rename inside the recovery area.
std::optional<FileURL> StagedPackage(const RecoveredEntry& entry) {
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  for (const std::string& item : entry.items) {
    const FileURL container = entry.content.URLByAppendingPathComponent(item, true);
    const FileURL staging = container.URLByAppendingPathComponent("Staging", true);
    const FileURL payload = staging.URLByAppendingPathComponent("Payload", true);
    auto entries = fileManager.urlsForItemsInDirectoryAtURL(container, true, nullptr);
    if (!entries) continue;
    for (const FileURL& bundle : *entries) {
      const std::string extension = bundle.pathExtension();
      if (extension != "app" && extension != "vpnplugin") continue;
      if (!fileManager.createDirectoryAtURL(payload, true, 0755, nullptr) ||
          !fileManager.moveItemAtURL(
              bundle, payload.URLByAppendingPathComponent(bundle.lastPathComponent(), true),
              nullptr)) {
        return std::nullopt;
      }
    }
    if (!fileManager.itemExistsAtURL(payload)) continue;
    if (!fileManager.captureStoreDataFromDirectory(container, staging, false, false, nullptr)) {
      return std::nullopt;
    }
    return staging;
  }
  return std::nullopt;
}

// The groups the installed application belongs to that still wait in the old install map
// (their items never moved, because the installation that would have led there failed) are
// marked as its own, the way the migration marks a group it could not empty. True when one was.
bool MarkWaitingGroups(DeviceWorkspace& workspace, const std::string& identifier) {
  const std::string mapPath =
      VXGlobalConfiguration::sharedInstance().oldInstallMapPath().path();
  std::optional<PlistDictionary> installMap = ReadPropertyListDictionary(mapPath);
  auto proxy = workspace.bundleProxyForIdentifier(identifier);
  if (!installMap || !proxy || !proxy->groupContainerURLs) return false;
  auto groups = installMap->find("GroupContainers");
  if (groups == installMap->end() || !groups->second.dictionary()) return false;
  PlistDictionary entries = *groups->second.dictionary();
  bool marked = false;
  for (const auto& [group, destination] : *proxy->groupContainerURLs) {
    auto entry = entries.find(group);
    if (entry == entries.end() || !entry->second.dictionary()) continue;
    PlistDictionary fields = *entry->second.dictionary();
    fields[kGroupOwnerKey] = identifier;
    entry->second = PlistValue(std::move(fields));
    marked = true;
  }
  if (!marked) return false;
  groups->second = PlistValue(std::move(entries));
  return WritePropertyListFile(mapPath, PlistValue(*installMap));
}

// The migration once more, which moves the marked groups.
bool MigrateAgain() {
  std::string problem;
  LogOptions quiet;
  quiet.quiet = true;
  auto logs = LogSetup::Install(quiet, &problem);
  auto plugins = logs ? LoadPlugins(DefaultPluginDirectory(), &problem) : std::nullopt;
  if (!plugins) {
    std::cerr << "vxmigrate recover: " << problem << "\n";
    return false;
  }
  bool succeeded = true;
  for (LoadedPlugin& loaded : *plugins) succeeded = loaded.plugin->performMigration() && succeeded;
  return succeeded;
}

int Install(const RecoveredEntry& entry) {
  const std::string& identifier = entry.record.identifier;
  std::optional<FileURL> package = StagedPackage(entry);
  if (entry.record.course != kRecoveryCourseInstallFailed || !package || identifier.empty()) {
    std::cerr << "vxmigrate recover: " << entry.name
              << " holds no bundle to install; its content is in " << entry.content.path() << "\n";
    return kExitFailure;
  }
  DeviceWorkspace workspace(DeviceRoot());
  const PlistDictionary options{{InstallTypeKey, kMigrationInstallType},
                                {PackageTypeKey, PackageTypeCustomer},
                                {"VerifyForMigrator", true},
                                {"KBBundleIdentifier", identifier}};
  ErrorRef error;
  if (!workspace.installApplication(*package, options, &error)) {
    std::cerr << "vxmigrate recover: installing " << identifier << " failed: "
              << (error ? Describe(*error) : std::string("no reason given")) << "\n";
    return kExitFailure;
  }
  workspace.removeRetiredContainers();
  std::cout << "Installed " << identifier << " from " << entry.name << ".\n";
  if (MarkWaitingGroups(workspace, identifier)) {
    std::cout << "Moving the group containers of " << identifier << ".\n";
    if (!MigrateAgain()) {
      std::cerr << "vxmigrate recover: the migration of its group containers is incomplete; "
                   "run vxmigrate migrate again\n";
      return kExitFailure;
    }
  }
  // What the installation did not take (a file the migration could not place) stays.
  for (const std::string& item : entry.items) {
    if (ItemHoldsUserBytes(entry.content.URLByAppendingPathComponent(item, true), kMigrationFiles)) {
      std::cout << "The entry still holds files; it stays in " << entry.content.path() << ".\n";
      return 0;
    }
  }
  if (!RemoveRecoveredEntry(entry, &error)) {
    std::cerr << "vxmigrate recover: could not clear " << entry.name << " from the area\n";
    return kExitFailure;
  }
  return 0;
}

int Purge(const RecoveredEntry& entry, bool yes) {
  if (!yes) {
    std::cerr << "vxmigrate recover: --purge deletes " << entry.content.path()
              << " for good; add --yes to do it\n";
    return kExitUsage;
  }
  ErrorRef error;
  if (!RemoveRecoveredEntry(entry, &error)) {
    std::cerr << "vxmigrate recover: could not delete " << entry.name << ": "
              << (error ? Describe(*error) : std::string("no reason given")) << "\n";
    return kExitFailure;
  }
  std::cout << "Deleted " << entry.name << ".\n";
  return 0;
}

int RunRecover(const RecoverOptions& options) {
  if (options.root && !SetDeviceRoot(*options.root)) {
    std::cerr << "vxmigrate recover: cannot use " << *options.root << " as the device root\n";
    return kExitUsage;
  }
  if (!options.entry) {
    if (options.purge) {
      std::cerr << "vxmigrate recover: --purge needs the entry (or identifier) to delete\n";
      return kExitUsage;
    }
    return List(options.json);
  }
  std::optional<RecoveredEntry> entry = FindRecoveredEntry(*options.entry);
  if (!entry) {
    std::cerr << "vxmigrate recover: nothing in the recovery area is named " << *options.entry
              << " or belongs to it\n";
    return kExitFailure;
  }
  return options.purge ? Purge(*entry, options.yes) : Install(*entry);
}

const CommandRegistration kRecover(35, [](CLI::App& app, int* exitStatus) {
  auto options = std::make_shared<RecoverOptions>();
  CLI::App* command = app.add_subcommand(
      "recover", "List the recovery area, install a recovered bundle again, or delete an entry");
  command->add_option("entry", options->entry,
                      "Entry name, or application identifier (its newest entry)");
  command->add_option("--root", options->root, "Directory holding the device's file system")
      ->check(CLI::ExistingDirectory);
  command->add_flag("--json", options->json, "List as a JSON array on standard output");
  command->add_flag("--purge", options->purge, "Delete the entry instead of installing it");
  command->add_flag("--yes", options->yes, "Confirm --purge");
  command->callback([options, exitStatus] { *exitStatus = RunRecover(*options); });
});

}  // namespace
}  // namespace vx::host
