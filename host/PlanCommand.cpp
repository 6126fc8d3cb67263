// `vxmigrate plan`: what a migration of the device would do, foreseen without changing a
// byte of it. Each plug-in plans through the read-only object its planning factory makes;
// the host adds what only the device can say (file systems, room, attributes, permission).
// No log is installed: a plan writes nothing, not even a log line on the device.
#include <unistd.h>

#include <iomanip>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "host/Command.h"
#include "host/DeviceChecks.h"
#include "host/DisplayText.h"
#include "host/MigrationPlan.h"
#include "host/PluginLoader.h"
#include "platform/log/Log.h"
#include "platform/log/LogSinks.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/WorkspaceLayout.h"

namespace vx::host {
namespace {

constexpr int kExitIncomplete = 1;
constexpr int kExitUsage = 2;
constexpr size_t kReasonsShown = 8;

struct PlanOptions {
  std::optional<std::string> root;
  std::optional<std::string> pluginDirectory;
  bool json = false;
};

// A sink that listens for as long as it lives.
class ScopedLogSink {
 public:
  explicit ScopedLogSink(std::shared_ptr<LogSink> sink) : sink_(std::move(sink)) {
    AddLogSink(sink_);
  }
  ~ScopedLogSink() { RemoveLogSink(sink_.get()); }
  ScopedLogSink(const ScopedLogSink&) = delete;
  ScopedLogSink& operator=(const ScopedLogSink&) = delete;

 private:
  std::shared_ptr<LogSink> sink_;
};

struct PluginPlan {
  std::string dataClassName;
  MigrationPlan plan;
};

// What the whole device would need: with the old layout on another file system than the
// workspace, every byte that moves is written anew.
struct Totals {
  uint64_t migrating = 0;
  uint64_t bytesMoved = 0;
  uint64_t filesMoved = 0;
  bool complete = true;
};

Totals Sum(const std::vector<PluginPlan>& plans) {
  Totals totals;
  for (const PluginPlan& p : plans) {
    if (!p.plan.problem.empty()) totals.complete = false;
    for (const PlannedEntry& e : p.plan.entries) {
      totals.complete = totals.complete && e.completes;
      if (e.fate != kFateMigrate) continue;
      ++totals.migrating;
      totals.bytesMoved += e.bundleBytes;
      for (const PlannedItem& item : e.data) {
        totals.bytesMoved += item.bytes;
        totals.filesMoved += item.files;
      }
      for (const PlannedItem& group : e.groups) {
        totals.bytesMoved += group.bytes;
        totals.filesMoved += group.files;
      }
    }
  }
  return totals;
}

// The device's own problems that would stop the run, beyond those CheckDevice names.
void AddSpaceProblems(const Totals& totals, DeviceChecks* device) {
  if (device->sameFileSystem) return;
  if (totals.bytesMoved > device->freeBytes) {
    device->problems.push_back(
        "the old layout lies on another file system than the workspace, "
        "so " +
        ByteCount(totals.bytesMoved) + " would be copied, but only " +
        ByteCount(device->freeBytes) + " are free");
  }
  if (totals.filesMoved > device->freeInodes) {
    device->problems.push_back(std::to_string(totals.filesMoved) +
                               " files would be copied, but only " +
                               std::to_string(device->freeInodes) + " inodes are free");
  }
}

nlohmann::ordered_json Items(const std::vector<PlannedItem>& items, bool groups) {
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (const PlannedItem& item : items) {
    nlohmann::ordered_json j{{groups ? "group" : "name", item.name}};
    if (groups) j["path"] = item.path;
    j["files"] = item.files;
    j["bytes"] = item.bytes;
    out.push_back(std::move(j));
  }
  return out;
}

nlohmann::ordered_json Json(const std::vector<PluginPlan>& plans, const DeviceChecks& device,
                            const Totals& totals, bool complete) {
  nlohmann::ordered_json plugins = nlohmann::ordered_json::array();
  for (const PluginPlan& p : plans) {
    nlohmann::ordered_json entries = nlohmann::ordered_json::array();
    for (const PlannedEntry& e : p.plan.entries) {
      entries.push_back({{"path", e.path},
                         {"course", e.course},
                         {"fate", e.fate},
                         {"completes", e.completes},
                         {"identifier", e.identifier},
                         {"installation", e.installation},
                         {"oldBundleIsPlaceholder", e.oldBundleIsPlaceholder},
                         {"refusal", e.refusal},
                         {"data", Items(e.data, false)},
                         {"groups", Items(e.groups, true)},
                         {"safeHarbors", e.safeHarbors},
                         {"leftOvers", e.leftOvers},
                         {"bundleBytes", e.bundleBytes},
                         {"reason", e.reason}});
    }
    nlohmann::ordered_json harbors = nlohmann::ordered_json::array();
    for (const PlannedHarbor& h : p.plan.safeHarbors) {
      harbors.push_back({{"identifier", h.identifier}, {"path", h.path}});
    }
    plugins.push_back({{"dataClassName", p.dataClassName},
                       {"oldContainerRoot", p.plan.oldContainerRoot},
                       {"oldRootExists", p.plan.oldRootExists},
                       {"problem", p.plan.problem},
                       {"entries", std::move(entries)},
                       {"safeHarbors", std::move(harbors)}});
  }
  return {{"deviceRoot", DeviceRoot()},
          {"plugins", std::move(plugins)},
          {"device",
           {{"oldRoot", device.oldRoot},
            {"workspace", device.workspace},
            {"sameFileSystem", device.sameFileSystem},
            {"bytesToCopy", device.sameFileSystem ? 0 : totals.bytesMoved},
            {"filesToCopy", device.sameFileSystem ? 0 : totals.filesMoved},
            {"freeBytes", device.freeBytes},
            {"freeInodes", device.freeInodes},
            {"userExtendedAttributes", device.userExtendedAttributes},
            {"writable", device.writable},
            {"problems", device.problems}}},
          {"complete", complete}};
}

// Escaped first, then cut between characters, never inside one.
std::string Shorten(const std::string& raw, size_t width) {
  const std::string text = EscapedText(raw);
  if (text.size() <= width) return text;
  size_t cut = width - 1;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return text.substr(0, cut) + "~";
}

// One line per entry, then why the entries that would stop the run would stop it.
void PrintPlan(const PluginPlan& p, std::ostream& out) {
  const MigrationPlan& plan = p.plan;
  out << p.dataClassName << ": " << EscapedText(plan.oldContainerRoot);
  if (!plan.problem.empty()) {
    out << ": " << EscapedText(plan.problem) << "\n";
    return;
  }
  if (!plan.oldRootExists) {
    out << " does not exist: nothing to migrate\n";
  } else {
    out << ", " << plan.entries.size() << " entries\n";
  }
  if (!plan.entries.empty()) {
    out << std::left << "  " << std::setw(13) << "entry" << std::setw(15) << "course"
        << std::setw(31) << "identifier" << std::setw(12) << "install" << std::setw(22) << "data"
        << "then\n";
  }
  std::vector<const PlannedEntry*> stopping;
  for (const PlannedEntry& e : plan.entries) {
    uint64_t files = 0, bytes = 0;
    for (const PlannedItem& item : e.data) {
      files += item.files;
      bytes += item.bytes;
    }
    std::string data = e.data.empty() ? "-" : std::to_string(files) + " files, " + ByteCount(bytes);
    std::string then = e.fate;
    if (!e.groups.empty()) then += ", " + std::to_string(e.groups.size()) + " group(s)";
    if (!e.safeHarbors.empty()) then += ", harbor";
    if (!e.refusal.empty()) then += " (a newer built-in copy stays)";
    if (e.oldBundleIsPlaceholder) then += "; data only";
    if (!e.leftOvers.empty()) then += "; " + std::to_string(e.leftOvers.size()) + " left over";
    if (!e.completes) {
      then += " (!)";
      stopping.push_back(&e);
    }
    out << "  " << std::setw(13) << Shorten(LastPathComponent(e.path), 12) << std::setw(15)
        << e.course << std::setw(31) << Shorten(e.identifier.empty() ? "-" : e.identifier, 30)
        << std::setw(12) << (e.installation.empty() ? "-" : e.installation) << std::setw(22) << data
        << then << "\n";
  }
  out << std::right;
  for (size_t i = 0; i < stopping.size() && i < kReasonsShown; ++i) {
    const PlannedEntry& e = *stopping[i];
    out << "  (!) " << EscapedText(LastPathComponent(e.path)) << ": "
        << (e.reason.empty() ? "it would stay in the old layout"
                             : EscapedText(WithoutPluginPrefix(e.reason)))
        << "\n";
  }
  if (stopping.size() > kReasonsShown) {
    out << "  (!) ... and " << stopping.size() - kReasonsShown << " more (see --json)\n";
  }
  if (!plan.safeHarbors.empty()) {
    out << "  safe harbors to register: " << plan.safeHarbors.size() << "\n";
  }
}

void PrintDevice(const DeviceChecks& device, const Totals& totals, std::ostream& out) {
  out << "Device\n"
      << "  old layout and workspace: "
      << (device.sameFileSystem
              ? "one file system (moves are renames)"
              : "different file systems (moves are copies: " + ByteCount(totals.bytesMoved) +
                    " in " + std::to_string(totals.filesMoved) + " files)")
      << "\n"
      << "  free for the workspace:   " << ByteCount(device.freeBytes) << ", " << device.freeInodes
      << " inodes\n"
      << "  user extended attributes: " << (device.userExtendedAttributes ? "yes" : "no") << "\n"
      << "  writable by this user:    " << (device.writable ? "yes" : "no") << "\n";
  for (const std::string& problem : device.problems) {
    out << "  (!) " << EscapedText(problem) << "\n";
  }
}

int RunPlan(const PlanOptions& options) {
  if (options.root && !SetDeviceRoot(*options.root)) {
    std::cerr << "vxmigrate plan: cannot use " << *options.root << " as the device root\n";
    return kExitUsage;
  }
  std::string problem;
  std::optional<std::vector<LoadedPlugin>> plugins;
  {
    // A plug-in that cannot read the old layout says why in its log; only that is shown,
    // on the terminal, since the plan's own walk reports through its result.
    const ScopedLogSink failures(std::make_shared<TerminalLogSink>(STDERR_FILENO, 3, false));
    plugins = LoadPlugins(options.pluginDirectory.value_or(DefaultPluginDirectory()),
                          kVXCreateMigratorPluginForPlanningSymbol, &problem);
  }
  if (!plugins) {
    std::cerr << "vxmigrate plan: " << problem << "\n";
    return kExitUsage;
  }
  std::vector<PluginPlan> plans;
  std::string oldRoot;
  for (LoadedPlugin& loaded : *plugins) {
    auto* planner = dynamic_cast<MigrationPlanner*>(loaded.plugin.get());
    if (!planner) {
      std::cerr << "vxmigrate plan: plug-in " << loaded.modulePath << " offers no plan\n";
      return kExitUsage;
    }
    plans.push_back({loaded.plugin->dataClassName(), planner->planMigration()});
    if (oldRoot.empty()) oldRoot = plans.back().plan.oldContainerRoot;
  }

  const Totals totals = Sum(plans);
  DeviceChecks device = CheckDevice(oldRoot.empty() ? DeviceRoot() : oldRoot,
                                    WorkspaceLayout(DeviceRoot()).containersDirectory().path());
  AddSpaceProblems(totals, &device);
  const bool complete = totals.complete && device.problems.empty();

  if (options.json) {
    std::cout << Json(plans, device, totals, complete)
                     .dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace)
              << std::endl;
  } else {
    std::cout << "Plan for " << EscapedText(DeviceRoot()) << " (nothing is changed)\n";
    for (const PluginPlan& p : plans) PrintPlan(p, std::cout);
    PrintDevice(device, totals, std::cout);
    std::cout << (complete ? "A migration would complete: " : "A migration would not complete: ")
              << totals.migrating << " to migrate"
              << (complete ? "." : "; see the entries and checks marked (!).") << std::endl;
  }
  return complete ? 0 : kExitIncomplete;
}

const CommandRegistration kPlan(15, [](CLI::App& app, int* exitStatus) {
  auto options = std::make_shared<PlanOptions>();
  CLI::App* command = app.add_subcommand(
      "plan", "Foresee what a migration of the device would do, changing nothing");
  command->add_option("--root", options->root, "Directory holding the device's file system")
      ->check(CLI::ExistingDirectory);
  command->add_option("--plugin-dir", options->pluginDirectory,
                      "Where to find the plug-ins (default: beside this installation)");
  command->add_flag("--json", options->json, "Print the plan as JSON on standard output");
  command->callback([options, exitStatus] { *exitStatus = RunPlan(*options); });
});

}  // namespace
}  // namespace vx::host
