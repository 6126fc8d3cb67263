#include "host/LogSetup.h"

#include <unistd.h>

#include <cstring>
#include <iostream>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/log/LogSinks.h"

namespace vx::host {
namespace {

constexpr const char* kInstallerLogName = "installer.log";
constexpr const char* kMigrationLogDirectory = "Library/Logs/Transhift";
constexpr const char* kMigrationLogName = "migration.log";

int TerminalLevel(const LogOptions& options) {
  if (options.quiet) return 3;
  return options.verbose ? 7 : 5;
}

std::shared_ptr<LogSink> OpenTextLog(const FileURL& directory, const char* name, LogKind log) {
  const std::string path = directory.URLByAppendingPathComponent(name).path();
  int error = 0;
  auto sink = TextLogFileSink::Open(path, log, &error);
  if (!sink) std::cerr << "vxmigrate: warning: cannot open log " << path << ": "
                       << std::strerror(error) << "\n";
  return sink;
}

}  // namespace

std::unique_ptr<LogSetup> LogSetup::Install(const LogOptions& options, std::string* problem) {
  std::unique_ptr<LogSetup> setup(new LogSetup);

  if (options.jsonPath) {
    int error = 0;
    auto json = JsonLinesLogSink::Open(*options.jsonPath, &error);
    if (!json) {
      *problem = "cannot open JSON log " + *options.jsonPath + ": " + std::strerror(error);
      return nullptr;
    }
    setup->Add(std::move(json));
  }

  if (options.verbose) {
    setup->handle_.level = 7;
    setup->previousHandle_ = gLogHandle;
    setup->ownsHandle_ = true;
    gLogHandle = &setup->handle_;
  }
  setup->Add(std::make_shared<TerminalLogSink>(STDERR_FILENO, TerminalLevel(options),
                                               options.terminalHasProgressBar));

  VXGlobalConfiguration& config = VXGlobalConfiguration::sharedInstance();
  // The accessor makes the directory itself.
  setup->Add(OpenTextLog(config.logDirectory(), kInstallerLogName, LogKind::Installer));
  const FileURL migrationLogs =
      config.homeDirectory().URLByAppendingPathComponent(kMigrationLogDirectory, true);
  ErrorRef error;
  if (!VXFileManager::defaultManager().createDirectoryAtURL(migrationLogs, true, 0755, &error)) {
    std::cerr << "vxmigrate: warning: cannot create " << migrationLogs.path() << ": "
              << (error && error->localizedDescription() ? *error->localizedDescription() : "")
              << "\n";
  } else {
    setup->Add(OpenTextLog(migrationLogs, kMigrationLogName, LogKind::Migration));
  }
  return setup;
}

std::string LogSetup::InstallerLogPath() {
  return VXGlobalConfiguration::sharedInstance()
      .logDirectory()
      .URLByAppendingPathComponent(kInstallerLogName)
      .path();
}

std::string LogSetup::MigrationLogPath() {
  return VXGlobalConfiguration::sharedInstance()
      .homeDirectory()
      .URLByAppendingPathComponent(kMigrationLogDirectory, true)
      .URLByAppendingPathComponent(kMigrationLogName)
      .path();
}

void LogSetup::Add(std::shared_ptr<LogSink> sink) {
  if (!sink) return;
  AddLogSink(sink);
  sinks_.push_back(std::move(sink));
}

LogSetup::~LogSetup() {
  for (const auto& sink : sinks_) RemoveLogSink(sink.get());
  if (ownsHandle_) gLogHandle = previousHandle_;
}

}  // namespace vx::host
