// `vxmigrate migrate`: the migration host. Loads every plug-in, runs each once and reports.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "configuration/VXGlobalConfiguration.h"
#include "host/Command.h"
#include "host/ContainerReportOutput.h"
#include "host/DeviceChecks.h"
#include "host/DisplayText.h"
#include "host/LogSetup.h"
#include "host/MigrationReport.h"
#include "host/PluginLoader.h"
#include "host/ProgressBar.h"
#include "platform/files/Fault.h"
#include "platform/log/Log.h"
#include "platform/system/DeviceRoot.h"

namespace vx::host {
namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct MigrateOptions {
  std::optional<std::string> root;
  std::optional<std::string> pluginDirectory;
  std::optional<std::string> jsonLog;
  bool verbose = false;
  bool quiet = false;
  bool noProgress = false;
  bool json = false;
  bool count = false;
};

struct PluginOutcome {
  std::string dataClassName;
  float estimatedDuration = 0;
  bool result = false;
  float progress = 0;
  double seconds = 0;
  // Only from a plug-in that offers a per-container report.
  std::optional<std::vector<ContainerReport>> containers;
};

int Usage(const std::string& message) {
  std::cerr << "vxmigrate migrate: " << message << "\n";
  return kExitUsage;
}

// Counts the failures a plug-in logged in its run as a whole (its creation and
// performMigration), not for one item of the old layout: an item's failure already shows in
// its course. A plug-in may return success after such a failure in a step it treats as
// secondary (recording the system version, say); the host still owes the user the truth that
// the run did not do all it should, as `plan` foretold.
class FailureCounter : public LogSink {
 public:
  void Write(const LogRecord& record) override {
    if (record.log == LogKind::Migration && record.level <= kFailureLevel &&
        (EndsWith(record.function, " performMigration]") || EndsWith(record.function, " init]"))) {
      failures_.fetch_add(1, std::memory_order_relaxed);
    }
  }
  uint64_t failures() const { return failures_.load(std::memory_order_relaxed); }

 private:
  static bool EndsWith(const std::string& text, std::string_view end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
  }
  static constexpr int kFailureLevel = 3;
  std::atomic<uint64_t> failures_{0};
};

// Removes the counter when the command ends, whatever way it leaves.
struct CounterInstalled {
  explicit CounterInstalled(std::shared_ptr<FailureCounter> c) : counter(std::move(c)) {
    AddLogSink(counter);
  }
  ~CounterInstalled() { RemoveLogSink(counter.get()); }
  CounterInstalled(const CounterInstalled&) = delete;
  CounterInstalled& operator=(const CounterInstalled&) = delete;
  std::shared_ptr<FailureCounter> counter;
};

std::string Seconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", seconds);
  return text;
}

PluginOutcome Run(MigratorPlugin& plugin, bool showBar, bool count, std::ostream* say) {
  PluginOutcome outcome;
  if (auto* reporter = dynamic_cast<MigrationReporter*>(&plugin)) reporter->countDataItems(count);
  outcome.dataClassName = plugin.dataClassName();
  outcome.estimatedDuration = plugin.estimatedDuration();
  if (say) {
    *say << outcome.dataClassName << ": estimated " << Seconds(outcome.estimatedDuration)
         << std::endl;
  }
  const auto start = std::chrono::steady_clock::now();
  {
    std::optional<ProgressBar> bar;
    if (showBar) {
      bar.emplace(outcome.dataClassName, [&plugin] { return plugin.migrationProgress(); },
                  outcome.estimatedDuration, STDERR_FILENO);
    }
    outcome.result = plugin.performMigration();
  }
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  outcome.progress = plugin.migrationProgress();
  if (const auto* reporter = dynamic_cast<const MigrationReporter*>(&plugin)) {
    outcome.containers = reporter->containerReports();
  }
  return outcome;
}

nlohmann::ordered_json Report(const std::vector<PluginOutcome>& outcomes, bool allSucceeded) {
  nlohmann::ordered_json plugins = nlohmann::ordered_json::array();
  for (const PluginOutcome& o : outcomes) {
    nlohmann::ordered_json plugin{{"dataClassName", o.dataClassName},
                                  {"estimatedDuration", o.estimatedDuration},
                                  {"result", o.result},
                                  {"progress", o.progress},
                                  {"seconds", o.seconds}};
    if (o.containers) plugin["containers"] = ContainerReportJson(*o.containers);
    plugins.push_back(std::move(plugin));
  }
  return {{"plugins", std::move(plugins)}, {"result", allSucceeded}};
}

int RunMigrate(const MigrateOptions& options) {
  if (options.root && !SetDeviceRoot(*options.root)) {
    return Usage("cannot use " + *options.root + " as the device root");
  }
  // Checked before anything is touched, but armed only after the logs are set up: a fault
  // meant for the migration must not land on the creation of a log directory.
  const char* faultProblem = nullptr;
  if (!fault::ConfigureFromEnvironment(&faultProblem)) return Usage(faultProblem);
  fault::Disarm();

  // Before any log is opened: logging alone would make the device's directories.
  const std::string home = VXGlobalConfiguration::sharedInstance().homeDirectory().path();
  if (!HoldsDeviceLayout(home)) {
    if (!options.quiet) {
      (options.json ? std::cerr : std::cout)
          << "Nothing to migrate: " << DeviceRoot() << " holds no device layout (no " << home
          << ")." << std::endl;
    }
    if (options.json) std::cout << JsonText(Report({}, true)) << std::endl;
    return 0;
  }

  const bool showBar = !options.noProgress && isatty(STDERR_FILENO);
  std::string problem;
  auto logs = LogSetup::Install({.verbose = options.verbose,
                                 .quiet = options.quiet,
                                 .jsonPath = options.jsonLog,
                                 .terminalHasProgressBar = showBar},
                                &problem);
  if (!logs) return Usage(problem);
  fault::ConfigureFromEnvironment(nullptr);
  CounterInstalled counting(std::make_shared<FailureCounter>());

  const std::string directory = options.pluginDirectory.value_or(DefaultPluginDirectory());
  auto plugins = LoadPlugins(directory, &problem);
  if (!plugins) return Usage(problem);

  // With --json, standard output belongs to the report alone.
  std::ostream* say = options.quiet ? nullptr : options.json ? &std::cerr : &std::cout;
  std::vector<PluginOutcome> outcomes;
  bool allSucceeded = true;
  for (LoadedPlugin& loaded : *plugins) {
    outcomes.push_back(Run(*loaded.plugin, showBar, options.count, say));
    const PluginOutcome& o = outcomes.back();
    allSucceeded = allSucceeded && o.result;
    if (say) {
      if (o.containers) PrintContainerReportTable(o.dataClassName, *o.containers, *say);
      *say << o.dataClassName << ": " << (o.result ? "done" : "FAILED") << " in "
           << Seconds(o.seconds) << std::endl;
    }
  }
  const uint64_t failures = counting.counter->failures();
  const bool complete = allSucceeded && failures == 0;
  // The plug-in's own hint names the logs as the device sees them; under another device root
  // they lie elsewhere on this machine.
  if (!complete) {
    std::cerr << "vxmigrate: the logs of this run are " << LogSetup::InstallerLogPath() << " and "
              << LogSetup::MigrationLogPath() << std::endl;
  }
  // The verdict comes last, where a reader of the output looks for it.
  if (complete) {
    if (say) *say << "Migration complete." << std::endl;
  } else {
    std::ostream& out = say ? *say : std::cerr;
    if (allSucceeded) {
      out << "Migration incomplete: " << failures << (failures == 1 ? " failure" : " failures")
          << " logged; see the logs." << std::endl;
    } else {
      out << "Migration incomplete: see the logs." << std::endl;
    }
  }
  if (options.json) std::cout << JsonText(Report(outcomes, complete)) << std::endl;
  return complete ? 0 : kExitFailed;
}

const CommandRegistration kMigrate(10, [](CLI::App& app, int* exitStatus) {
  auto options = std::make_shared<MigrateOptions>();
  CLI::App* command = app.add_subcommand(
      "migrate", "Bring the device's applications from the old layout into the current one");
  command->add_option("--root", options->root, "Directory holding the device's file system")
      ->check(CLI::ExistingDirectory);
  command->add_option("--plugin-dir", options->pluginDirectory,
                      "Where to find the plug-ins (default: beside this installation)");
  command->add_option("--log-json", options->jsonLog,
                      "Also append both logs to FILE, one JSON object per line");
  auto* verbose = command->add_flag("-v,--verbose", options->verbose,
                                    "Show debugging detail on standard error");
  command->add_flag("--quiet", options->quiet, "Show only failures on standard error")
      ->excludes(verbose);
  command->add_flag("--no-progress", options->noProgress, "Do not draw a progress bar");
  command->add_flag("--json", options->json, "Print a JSON report on standard output");
  command->add_flag("--count", options->count,
                    "Count the files and bytes of each data item as it moves (walks them all)");
  command->callback([options, exitStatus] { *exitStatus = RunMigrate(*options); });
});

}  // namespace
}  // namespace vx::host
