// An installation cut off at every mutating step, by a failing call and by a crash, leaves
// the old installation or the new one, and one data container.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "platform/Fault.h"
#include "platform/Workspace.h"
#include "platform/WorkspaceRegistry.h"
#include "support/AppPackages.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using test::Exists;
using test::ReadFile;

constexpr const char* kIdentifier = "com.example.crash";
constexpr uint64_t kMaxSteps = 1000;

// One device with, optionally, a placeholder installed and data in its container, and a
// staged real bundle to install over it.
struct Scenario {
  explicit Scenario(bool withPlaceholder) : withPlaceholder(withPlaceholder) {
    DeviceWorkspace workspace(device.path());
    if (withPlaceholder) {
      const std::string placeholder =
          test::MakeBundle(device / "tmp/crash.app", {.identifier = kIdentifier});
      EXPECT_TRUE(workspace.installApplication(FileURL::fileURLWithPath(placeholder, true),
                                               test::PlaceholderOptions(kIdentifier), nullptr));
      auto proxy = workspace.bundleProxyForIdentifier(kIdentifier);
      test::WriteFile(proxy->dataContainerURL->path() + "/Documents/keep.txt", "kept");
    }
    staging = test::MakeCustomerPackage(device / "Staging", "Crash.app",
                                        {.identifier = kIdentifier,
                                         .version = "2.0",
                                         .groups = {"group.crash"},
                                         .executable = "real"});
  }

  bool install() {
    DeviceWorkspace workspace(device.path());
    return workspace.installApplication(FileURL::fileURLWithPath(staging, true),
                                        test::MigratorCustomerOptions(kIdentifier), nullptr);
  }

  // Counted on disk: the index would show only one of two.
  size_t dataContainersOnDisk() const {
    const FileURL data = WorkspaceLayout(device.path()).directoryForClass(ContainerClass::Data);
    size_t count = 0;
    for (const std::string& name : test::ContainerNames(data.path())) {
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

  // A later installation finishes the job and leaves nothing of the interrupted one.
  void expectRecovery() {
    if (Exists(staging)) {
      EXPECT_TRUE(install());
    } else {
      // Something else to install, so that the workspace cleans up on its way.
      DeviceWorkspace workspace(device.path());
      const std::string other = test::MakeCustomerPackage(device / "Other", "Other.app",
                                                          {.identifier = "com.example.other"});
      EXPECT_TRUE(workspace.installApplication(FileURL::fileURLWithPath(other, true),
                                               test::MigratorCustomerOptions("com.example.other"),
                                               nullptr));
    }
    EXPECT_TRUE(expectOldOrNew());
    DeviceWorkspace workspace(device.path());
    const WorkspaceIndex index = ScanWorkspace(workspace.layout());
    EXPECT_TRUE(index.abandoned.empty());
    EXPECT_TRUE(index.superseded.empty());
    EXPECT_EQ(index.groupContainers.size(), 1u);
    for (const char* kind : {"Bundles", "Data", "Groups"}) {
      for (const std::string& name : test::DirectoryEntries(
               device / (std::string("private/var/mobile/Containers/") + kind))) {
        EXPECT_NE(name.front(), '.') << kind << "/" << name;
      }
    }
  }

  const bool withPlaceholder;
  test::TempDir device;
  std::string staging;
};

TEST(WorkspaceCrashTest, FailureAtEveryStepLeavesOldOrNew) {
  for (bool withPlaceholder : {true, false}) {
    uint64_t step = 1;
    for (; step < kMaxSteps; ++step) {
      SCOPED_TRACE(testing::Message() << "placeholder " << withPlaceholder << ", step " << step);
      Scenario scenario(withPlaceholder);
      fault::Arm(step, fault::Action::Fail, EIO);
      const bool installed = scenario.install();
      const bool fired = fault::MutationCount() >= step;
      fault::Disarm();
      // A reported failure means nothing changed; a reported success means it is all there.
      EXPECT_EQ(scenario.expectOldOrNew(), installed);
      scenario.expectRecovery();
      if (!fired) break;
      if (HasFailure()) return;
    }
    EXPECT_GT(step, 10u);
    EXPECT_LT(step, kMaxSteps);
  }
}

TEST(WorkspaceCrashTest, CrashAtEveryStepLeavesOldOrNew) {
  for (bool withPlaceholder : {true, false}) {
    uint64_t step = 1;
    for (; step < kMaxSteps; ++step) {
      SCOPED_TRACE(testing::Message() << "placeholder " << withPlaceholder << ", step " << step);
      Scenario scenario(withPlaceholder);
      const pid_t child = ::fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        fault::Arm(step, fault::Action::Crash, 0);
        ::_exit(scenario.install() ? 0 : 1);
      }
      int status = 0;
      ASSERT_EQ(::waitpid(child, &status, 0), child);
      const bool crashed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
      if (!crashed) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        EXPECT_TRUE(scenario.expectOldOrNew());
        break;
      }
      scenario.expectOldOrNew();
      scenario.expectRecovery();
      if (HasFailure()) return;
    }
    EXPECT_GT(step, 10u);
    EXPECT_LT(step, kMaxSteps);
  }
}

}  // namespace
}  // namespace vx
