// `vxmigrate demo`: lays out a small device in the old layout, migrates it with this very
// program and shows what changed. The device lives in its own directory, so the migration
// runs in a child process that can take that directory as its device root.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "filemanager/VXFileManager.h"
#include "host/Command.h"
#include "platform/AtomicFile.h"
#include "platform/PlistFile.h"
#include "platform/Sys.h"
#include "platform/SystemVersion.h"

extern char** environ;

namespace vx::host {
namespace {

constexpr const char* kOsRelease =
    "# The sample device's system\n"
    "NAME=\"Velotrix Sample\"\n"
    "VERSION_ID=\"2.0\"\n"
    "BUILD_ID=\"2A101\"\n";
constexpr const char* kNotice =
    "Your applications now live in the new layout; this note is no longer needed.\n";
constexpr const char* kOldRoot = "private/var/mobile/Applications";
constexpr const char* kInstallMap = "private/var/mobile/Library/Caches/com.tarsel.velotrix.plist";
constexpr const char* kVersionFile =
    "private/var/mobile/Library/Velotrix/AppMigratorLastSystemVersion.plist";
constexpr const char* kMigrationLog = "private/var/mobile/Library/Logs/Transhift/migration.log";
constexpr size_t kLogLinesShown = 8;

bool Fail(const std::string& what) {
  std::cerr << "vxmigrate demo: " << what << "\n";
  return false;
}

bool MakeDirectory(const std::string& path) {
  ErrorRef error;
  if (VXFileManager::defaultManager().createDirectoryAtURL(FileURL::fileURLWithPath(path, true),
                                                           true, 0755, &error)) {
    return true;
  }
  return Fail("cannot create " + path + ": " + Describe(*error));
}

bool WriteText(const std::string& path, const std::string& text) {
  int error = 0;
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  if (WriteFileAtomically(path, {bytes, text.size()}, &error)) return true;
  return Fail("cannot write " + path + ": " + std::strerror(error));
}

bool LayOutSampleDevice(const std::string& root) {
  const PlistDictionary installMap{{"GroupContainers", PlistDictionary{}}};
  int error = 0;
  return MakeDirectory(root + "/etc") && WriteText(root + "/etc/os-release", kOsRelease) &&
         MakeDirectory(root + "/" + kOldRoot) &&
         WriteText(root + "/" + kOldRoot + "/WhereDidMyApplicationsGo.txt", kNotice) &&
         MakeDirectory(root + "/private/var/mobile/Library/Caches") &&
         (WritePropertyListFile(root + "/" + kInstallMap, PlistValue(installMap),
                                PlistFormat::XML, &error) ||
          Fail(std::string("cannot write the install map: ") + std::strerror(error)));
}

std::optional<std::string> MakeTemporaryDevice() {
  const char* tmp = std::getenv("TMPDIR");
  std::string path = std::string(tmp && *tmp ? tmp : "/tmp") + "/vxmigrate-demo.XXXXXX";
  if (!sys::Mkdtemp(path.data())) {
    Fail("cannot make a temporary directory: " + std::string(std::strerror(errno)));
    return std::nullopt;
  }
  return path;
}

void ShowTree(const std::string& root) {
  std::vector<std::string> entries;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(root, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::string relative = std::filesystem::relative(it->path(), root, ec).string();
    if (it->is_directory(ec) && !it->is_symlink(ec)) relative += "/";
    entries.push_back(std::move(relative));
  }
  std::sort(entries.begin(), entries.end());
  for (const std::string& entry : entries) std::cout << "  " << entry << "\n";
}

// Runs `<this program> migrate --root DIR`; its output goes straight to ours.
int RunMigrationOf(const std::string& root) {
  std::error_code ec;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe", ec).string();
  if (ec) {
    Fail("cannot find this program: " + ec.message());
    return 2;
  }
  std::vector<std::string> args{self, "migrate", "--root", root, "--no-progress"};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::cout.flush();
  pid_t pid = 0;
  if (int e = posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), environ)) {
    Fail("cannot run " + self + ": " + std::strerror(e));
    return 2;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

void ShowLogTail(const std::string& path) {
  std::ifstream in(path);
  std::deque<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    lines.push_back(std::move(line));
    if (lines.size() > kLogLinesShown) lines.pop_front();
  }
  for (const std::string& line : lines) std::cout << "  " << line << "\n";
}

int RunDemo(const std::optional<std::string>& keep) {
  std::optional<std::string> root = keep;
  if (root && !MakeDirectory(*root)) return 2;
  if (!root && !(root = MakeTemporaryDevice())) return 2;
  *root = std::filesystem::absolute(*root).lexically_normal().string();
  if (!LayOutSampleDevice(*root)) return 2;

  std::cout << "Sample device: " << *root << "\n\nBefore:\n";
  ShowTree(*root);
  std::cout << "\nMigrating...\n";
  const int status = RunMigrationOf(*root);
  std::cout << "\nAfter:\n";
  ShowTree(*root);

  const auto recorded = ReadPropertyListDictionary(*root + "/" + kVersionFile);
  const auto build = recorded ? SystemBuildVersion(*recorded) : std::nullopt;
  std::cout << "\nRecorded system version: " << build.value_or("(none)")
            << "\nMigration log, last lines:\n";
  ShowLogTail(*root + "/" + kMigrationLog);
  std::cout << "\nResult: " << (status == 0 ? "migrated" : "not migrated") << " (exit status "
            << status << ")\n";

  if (keep) {
    std::cout << "The device stays in " << *root << ".\n";
  } else {
    ErrorRef error;
    if (!VXFileManager::defaultManager().removeItemAtURL(FileURL::fileURLWithPath(*root, true),
                                                         &error)) {
      Fail("cannot remove " + *root + ": " + Describe(*error));
    }
    std::cout << "The sample device was removed; --keep DIR keeps one.\n";
  }
  return status;
}

const CommandRegistration kDemo(20, [](CLI::App& app, int* exitStatus) {
  auto keep = std::make_shared<std::optional<std::string>>();
  CLI::App* command =
      app.add_subcommand("demo", "Migrate a small sample device and show what changed");
  command->add_option("--keep", *keep, "Lay out the device in DIR and keep it afterwards");
  command->callback([keep, exitStatus] { *exitStatus = RunDemo(*keep); });
});

}  // namespace
}  // namespace vx::host
