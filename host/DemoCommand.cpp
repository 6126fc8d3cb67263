// `vxmigrate demo`: writes the sample device in a fresh directory, migrates it with this very
// program (a child process, so that the device directory can be its device root), shows what
// the workspace now holds and proves from the sample's manifest that nothing was lost.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "filemanager/VXFileManager.h"
#include "host/Command.h"
#include "host/sample/ManifestCheck.h"
#include "host/sample/SampleDevice.h"

extern char** environ;

namespace vx::host {
namespace {

constexpr size_t kFailuresShown = 10;

struct DemoOptions {
  sample::SampleDeviceOptions device;
  std::optional<std::string> keep;
};

int Fail(const std::string& what) {
  std::cerr << "vxmigrate demo: " << what << "\n";
  return 2;
}

// Runs this program with `arguments`; its output goes straight to ours.
int RunSelf(const std::vector<std::string>& arguments) {
  std::error_code ec;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe", ec).string();
  if (ec) return Fail("cannot find this program: " + ec.message());
  std::vector<std::string> args{self};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::cout.flush();
  pid_t pid = 0;
  if (int e = posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), environ)) {
    return Fail("cannot run " + self + ": " + std::strerror(e));
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

// The failures of the run, as the migration log gave them. (The installer log's refusals,
// such as an application older than the built-in one, are the workspace's answers that the
// migration took in its stride.)
std::vector<std::string> Failures(const std::string& jsonLog) {
  std::vector<std::string> failures;
  std::ifstream in(jsonLog);
  for (std::string line; std::getline(in, line);) {
    auto record = nlohmann::json::parse(line, nullptr, false);
    if (!record.is_discarded() && record.value("level", 0) == 3 &&
        record.value("log", "") == "migration") {
      failures.push_back(record.value("message", ""));
    }
  }
  return failures;
}

std::string Megabytes(uint64_t bytes) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(1) << static_cast<double>(bytes) / (1024.0 * 1024.0)
      << " MiB";
  return out.str();
}

std::string KindOf(const std::string& bundleType) {
  if (bundleType == "User") return "application";
  if (bundleType == "Placeholder") return "placeholder";
  if (bundleType == "System") return "built-in";
  if (bundleType == "VPNPlugin") return "vpn plug-in";
  return "absent";
}

// One line per application: what it is now, how much of its data arrived, and what became of
// it. An older copy of a built-in application is refused by the workspace on purpose: the
// built-in one takes over its data.
void PrintApplications(const sample::ManifestReport& report) {
  std::cout << "\n  " << std::left << std::setw(30) << "application" << std::setw(13) << "now"
            << std::setw(22) << "data moved" << "outcome\n";
  for (const sample::ApplicationResult& app : report.perApplication) {
    std::string outcome = "migrated";
    if (app.kind == "System") {
      outcome = "migrated; the newer built-in copy serves its data";
    } else if (app.kind == "Placeholder") {
      outcome = "data migrated; bundle waits in the recovery area";
    } else if (app.kind.empty()) {
      outcome = "not migrated; it stays in the old layout";
    } else if (app.filesVerified < app.files) {
      outcome = "some data not in its container (see below)";
    }
    const std::string data = std::to_string(app.filesVerified) + "/" + std::to_string(app.files) +
                              " files, " + Megabytes(app.bytesVerified);
    std::cout << "  " << std::setw(30) << app.identifier << std::setw(13) << KindOf(app.kind)
              << std::setw(22) << data << outcome << "\n";
  }
  std::cout << std::right;
}

std::optional<std::string> MakeDeviceDirectory(const std::optional<std::string>& keep) {
  if (keep) return std::filesystem::absolute(*keep).lexically_normal().string();
  const char* tmp = std::getenv("TMPDIR");
  std::string path = std::string(tmp && *tmp ? tmp : "/tmp") + "/vxmigrate-demo.XXXXXX";
  if (!::mkdtemp(path.data())) return std::nullopt;
  return path;
}

int RunDemo(const DemoOptions& options) {
  const auto root = MakeDeviceDirectory(options.keep);
  if (!root) return Fail(std::string("cannot make a temporary directory: ") + std::strerror(errno));
  std::string problem;
  if (!sample::WriteSampleDevice(*root, options.device, &problem)) return Fail(problem);
  std::cout << "Sample device with " << options.device.apps << " applications in the old layout: "
            << *root << "\n\n";

  const std::string jsonLog = *root + "/demo-log.jsonl";
  const auto start = std::chrono::steady_clock::now();
  const int status = RunSelf({"migrate", "--root", *root, "--quiet", "--count", "--log-json", jsonLog});
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  const sample::ManifestReport report = sample::CheckMigratedDevice(*root);
  PrintApplications(report);
  const std::vector<std::string> failures = Failures(jsonLog);
  std::cout << "\nReport\n"
            << "  applications migrated: " << report.applicationsInstalled << " of "
            << report.applications << "\n"
            << "  data moved:            " << report.filesVerified << " of " << report.files
            << " files (" << Megabytes(report.bytesVerified) << "), every byte verified: "
            << (report.ok() ? "yes" : "no") << "\n"
            << "  time:                  " << std::fixed << std::setprecision(2) << seconds
            << " s\n"
            << "  result:                "
            << (status == 0 ? "migrated" : "not migrated (exit status " + std::to_string(status) + ")")
            << "\n";
  if (!failures.empty()) {
    std::cout << "  failures:\n";
    for (size_t i = 0; i < failures.size() && i < kFailuresShown; ++i) {
      std::cout << "    " << failures[i] << "\n";
    }
    if (failures.size() > kFailuresShown) {
      std::cout << "    ... and " << failures.size() - kFailuresShown << " more in " << jsonLog << "\n";
    }
  }
  for (const std::string& p : report.problems) std::cout << "  not where it belongs: " << p << "\n";
  if (!report.ok()) {
    std::cout << "  (nothing is deleted on failure: what did not move stays in the old layout or "
                 "in the recovery area, see vxmigrate recover --root "
              << *root << ")\n";
  }

  if (options.keep) {
    std::cout << "\nThe device stays in " << *root << "; vxmigrate apps --root " << *root
              << " lists every container.\n";
  } else {
    ErrorRef error;
    VXFileManager::defaultManager().removeItemAtURL(FileURL::fileURLWithPath(*root, true), &error);
    std::cout << "\nThe sample device was removed; --keep DIR keeps one.\n";
  }
  return status == 0 && report.ok() ? 0 : 1;
}

const CommandRegistration kDemo(20, [](CLI::App& app, int* exitStatus) {
  auto options = std::make_shared<DemoOptions>();
  CLI::App* command = app.add_subcommand(
      "demo", "Migrate the built-in sample device and report what moved");
  command->add_option("--apps", options->device.apps, "Number of applications")
      ->check(CLI::Range(0, 10000));
  command->add_option("--keep", options->keep, "Write the device into DIR and keep it afterwards");
  command->callback([options, exitStatus] { *exitStatus = RunDemo(*options); });
});

}  // namespace
}  // namespace vx::host
