// An installation cut off at every mutating step, by a failing call and by a crash, leaves
// the old installation or the new one, and one data container.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/stat.h>

#include <csignal>
#include <vector>

#include "platform/files/Fault.h"
#include "platform/files/Sys.h"
#include "platform/workspace/Workspace.h"
#include "platform/workspace/WorkspaceRegistry.h"
#include "support/AppPackages.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using namespace test;

constexpr const char* kIdentifier = "com.example.crash";
constexpr uint64_t kMaxSteps = 1000;

// One device with, optionally, a placeholder installed and data in its container, and a
// staged real bundle to install over it.
struct Scenario {
  // `stagingParent`: where the package lies, by default on the device's own file system.
  explicit Scenario(bool withPlaceholder, const std::string& stagingParent = "")
      : withPlaceholder(withPlaceholder) {
    DeviceWorkspace workspace(device.path());
    if (withPlaceholder) {
      EXPECT_TRUE(
          InstallPlaceholder(workspace, device / "tmp/crash.app", {.identifier = kIdentifier}));
      auto proxy = workspace.bundleProxyForIdentifier(kIdentifier);
      WriteFile(proxy->dataContainerURL->path() + "/Documents/keep.txt", "kept");
    }
    staging = MakeCustomerPackage(
        (stagingParent.empty() ? device.path() : stagingParent) + "/Staging", "Crash.app",
        {.identifier = kIdentifier, .groups = {"group.crash"}, .executable = "real"});
  }

  bool install() {
    return DeviceWorkspace(device.path())
        .installApplication(FileURL::fileURLWithPath(staging, true),
                            MigratorCustomerOptions(kIdentifier), nullptr);
  }

  // Counted on disk: the index would show only one of two.
  size_t dataContainersOnDisk() const {
    const FileURL data = WorkspaceLayout(device.path()).directoryForClass(ContainerClass::Data);
    size_t count = 0;
    for (const std::string& name : ContainerNames(data.path())) {
      auto record = WorkspaceLayout::readRecord(data.URLByAppendingPathComponent(name, true));
      count += record && record->identifier == kIdentifier;
    }
    return count;
  }

  // Returns whether the new installation is the one in place.
  bool expectOldOrNew() {
    auto proxy = DeviceWorkspace(device.path()).existingBundleProxy(kIdentifier);
    const size_t dataContainers = dataContainersOnDisk();
    const bool isNew = proxy && proxy->bundleType == "User";
    if (isNew) {
      EXPECT_EQ(ReadFile(proxy->bundleURL->path() + "/App"), "real");
      EXPECT_TRUE(Exists(proxy->bundleContainerURL->path() + "/LyrandMetadata.plist"));
      EXPECT_TRUE(proxy->groupContainerURLs && proxy->groupContainerURLs->count("group.crash"));
    } else {
      EXPECT_EQ(proxy.has_value(), withPlaceholder);
      // Until the new installation is in place, the package is whole.
      EXPECT_EQ(ReadFile(staging + "/Payload/Crash.app/App"), "real");
    }
    // Never two; none only while a first installation has not got as far as making it.
    EXPECT_TRUE(dataContainers == 1 || (dataContainers == 0 && !withPlaceholder && !isNew))
        << dataContainers;
    if (withPlaceholder && proxy && proxy->dataContainerURL) {
      EXPECT_EQ(ReadFile(proxy->dataContainerURL->path() + "/Documents/keep.txt"), "kept");
    }
    return isNew;
  }

  // A retry finishes the job and leaves nothing of the interrupted one. Once the new
  // installation is in place the package has given up its bundle, and something else is
  // installed instead.
  void expectRecovery() {
    DeviceWorkspace workspace(device.path());
    EXPECT_TRUE(!expectOldOrNew() ? install()
                                  : InstallCustomerPackage(workspace, device / "Other", "Other.app",
                                                           {.identifier = "com.example.other"}));
    workspace.removeRetiredContainers();
    EXPECT_TRUE(expectOldOrNew());
    const WorkspaceIndex index = ScanWorkspace(WorkspaceLayout(device.path()));
    EXPECT_TRUE(index.abandoned.empty() && index.superseded.empty());
    EXPECT_EQ(index.groupContainers.size(), 1u);
    for (const std::string kind : {"Bundles", "Data", "Groups"}) {
      for (const std::string& name :
           DirectoryEntries(device / ("private/var/mobile/Containers/" + kind))) {
        EXPECT_NE(name.front(), '.') << kind << "/" << name;
      }
    }
  }

  const bool withPlaceholder;
  TempDir device;
  std::string staging;
};

// Cuts the installation off at step 1, 2, ... until it runs to its end; `runCutOffAt` says
// whether the step was reached.
template <typename RunCutOffAt>
void CutOffAtEveryStep(RunCutOffAt runCutOffAt, const std::string& stagingParent = "",
                       std::vector<bool> placeholders = {true, false}) {
  for (bool withPlaceholder : placeholders) {
    uint64_t step = 1;
    for (; step < kMaxSteps; ++step) {
      SCOPED_TRACE(testing::Message() << "placeholder " << withPlaceholder << ", step " << step);
      Scenario scenario(withPlaceholder, stagingParent);
      const bool reached = runCutOffAt(scenario, step);
      scenario.expectRecovery();
      if (testing::Test::HasFailure()) return;
      if (!reached) break;
    }
    EXPECT_TRUE(step > 10 && step < kMaxSteps) << step;
  }
}

TEST(WorkspaceCrashTest, FailureAtEveryStepLeavesOldOrNew) {
  CutOffAtEveryStep([](Scenario& scenario, uint64_t step) {
    fault::Arm(step, fault::Action::Fail, EIO);
    const bool installed = scenario.install();
    const bool fired = fault::MutationCount() >= step;
    fault::Disarm();
    // A reported failure means nothing changed; a reported success means it is all there.
    EXPECT_EQ(scenario.expectOldOrNew(), installed);
    return fired;
  });
}

TEST(WorkspaceCrashTest, CrashAtEveryStepLeavesOldOrNew) {
  CutOffAtEveryStep([](Scenario& scenario, uint64_t step) {
    const pid_t child = ::fork();
    if (child == 0) {
      fault::Arm(step, fault::Action::Crash, 0);
      ::_exit(scenario.install() ? 0 : 1);
    }
    int status = 0;
    EXPECT_TRUE(child > 0 && ::waitpid(child, &status, 0) == child);
    const bool crashed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    const bool isNew = scenario.expectOldOrNew();
    // An installation the crash never reached finished the job.
    EXPECT_TRUE(crashed || (WIFEXITED(status) && WEXITSTATUS(status) == 0 && isNew));
    return crashed;
  });
}

void PowerCutAtEveryStep(const std::string& stagingParent, const std::string& stashParent,
                         std::vector<bool> partials, std::vector<bool> placeholders) {
  TempDir stash(stashParent);
  for (const bool partial : partials) {
    CutOffAtEveryStep([&](Scenario& scenario, uint64_t step) {
      int reported[2];
      EXPECT_EQ(::pipe(reported), 0);
      const pid_t child = ::fork();
      if (child == 0) {
        fault::Arm(step, fault::Action::PowerCut, 0,
                   {.partial = partial,
                    .seed = step,
                    .stashDirectory = stash / ("kept-" + std::to_string(step) + (partial ? "p" : ""))});
        const char installed = scenario.install() ? 'y' : 'n';
        EXPECT_EQ(::write(reported[1], &installed, 1), 1);
        // The power fails at the next change, before anything else could sync.
        for (;;) sys::Mkdir((scenario.device / "after").c_str(), 0755);
      }
      ::close(reported[1]);
      char installed = 0;
      const bool returned = ::read(reported[0], &installed, 1) == 1;
      ::close(reported[0]);
      int status = 0;
      EXPECT_TRUE(child > 0 && ::waitpid(child, &status, 0) == child);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
      const bool isNew = scenario.expectOldOrNew();
      EXPECT_TRUE(isNew || !returned || installed != 'y') << "reported installed, then lost";
      return !returned;
    }, stagingParent, placeholders);
  }
}

TEST(WorkspaceCrashTest, PowerCutAtEveryStepLeavesOldOrNewAndKeepsWhatItReported) {
  PowerCutAtEveryStep("", "", {false, true}, {true, false});
}

// A package on another file system is copied, not renamed: the copy must be on disk before
// the package goes, or a cut leaves neither.
TEST(WorkspaceCrashTest, PowerCutAcrossFileSystemsKeepsThePackageUntilItsCopyIsOnDisk) {
  TempDir far("/dev/shm");
  struct stat a {}, b {};
  if (::stat(far.path().c_str(), &a) != 0 || ::stat(TempDir().path().c_str(), &b) != 0 ||
      a.st_dev == b.st_dev) {
    GTEST_SKIP() << "no second writable file system";
  }
  // A cut that keeps part of the unsynced work is the one that can keep a removal and lose
  // the copy's bytes.
  PowerCutAtEveryStep(far.path(), far.path(), {true}, {false});
}

}  // namespace
}  // namespace vx
