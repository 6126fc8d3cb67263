// Disk-image discovery over a sysfs tree and a mount table made by the test.
#include <gtest/gtest.h>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/registry/DeviceRegistry.h"
#include "platform/registry/MountTable.h"
#include "support/AppPackages.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using test::MakeBundle;
using test::WriteFile;

class DiskImageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::MakeDirs(device_);
    DeviceRegistry::shared().setSysfsRoot(sysfs_);
    SetMountTablePath(tmp_ / "mounts");
  }
  void TearDown() override {
    DeviceRegistry::shared().setSysfsRoot("/sys");
    SetMountTablePath("/proc/self/mounts");
  }
  void AddLoopDriver() { test::MakeDirs(sysfs_ + "/module/loop"); }
  // A loop device bound to a backing file: a disk-image drive.
  void AddLoop(int n) {
    WriteFile(sysfs_ + "/block/loop" + std::to_string(n) + "/loop/backing_file", "/images/i.img\n");
  }
  // Each pair: the /dev name mounted, and where.
  void WriteMounts(const std::vector<std::pair<std::string, std::string>>& mounts) {
    std::string table;
    for (const auto& [from, on] : mounts) table += "/dev/" + from + " " + on + " ext4 rw 0 0\n";
    WriteFile(tmp_ / "mounts", table);
  }

  test::TempDir tmp_;
  const std::string sysfs_ = tmp_ / "sys";
  const std::string device_ = tmp_ / "device";
};

TEST_F(DiskImageTest, DrivesPartitionsMountPointsAndTheirApps) {
  AddLoopDriver();
  // loop0 has two mounted partitions, of which only the first counts; loop1 is unbound; loop2
  // is mounted in the device's debug area; nothing is mounted from loop3, though loop3p1 and
  // loop1 are; loop4 is the host's own, mounted outside the device root (beside it, under a
  // name that merely begins like the root's); loop10 is mounted on the device's developer
  // directory.
  for (int n : {0, 2, 3, 4, 10}) AddLoop(n);
  for (const char* p : {"1", "2"}) WriteFile(sysfs_ + "/block/loop0/loop0p" + p + "/partition", p);
  test::MakeDirs(sysfs_ + "/block/loop1");
  const std::string image = device_ + "/image one";
  const std::string debug = device_ + "/private/var/debug_mount/dbg";
  WriteMounts({{"loop1", device_ + "/unbound"}, {"loop0p2", device_ + "/second"},
               {"loop4", device_ + "-host/mnt"}, {"loop0p1", device_ + "/image\\040one"},
               {"loop3p1", device_ + "/p1"}, {"loop2", debug}, {"loop10", device_ + "/Developer"}});
  VXGlobalConfiguration config(device_);
  auto& registry = DeviceRegistry::shared();
  const size_t open = registry.openHandleCount();

  EXPECT_EQ(config.diskImageMountPoints(),
            (std::vector<std::string>{image, debug, device_ + "/Developer"}));
  const FileURL developerApps = FileURL::fileURLWithPath(device_ + "/Developer/Applications", true);
  EXPECT_EQ(config.diskImageApplicationsDirectories(),
            (std::vector<FileURL>{FileURL::fileURLWithPath(image + "/Applications", true),
                                  developerApps}));

  // A root given through a link sees the same images, spelt under the root as given.
  test::MakeSymlink(device_, tmp_ / "link");
  VXGlobalConfiguration linked(tmp_ / "link");
  EXPECT_EQ(linked.diskImageApplicationsDirectories(),
            (std::vector<FileURL>{
                FileURL::fileURLWithPath(tmp_ / "link/image one/Applications", true),
                linked.developerAppsDirectory()}));

  // The developer image comes later in the list, so its record wins for a shared identifier.
  MakeBundle(image + "/Applications/Shared.app", {"com.example.shared"});
  MakeBundle(image + "/Applications/OnImage.app", {"com.example.image"});
  MakeBundle(developerApps.path() + "/Shared.app", {"com.example.shared"});
  BundleMap apps = config.diskImageAppBundleIDToInfoMap();
  ASSERT_EQ(apps.size(), 2u);
  EXPECT_EQ(*apps.at("com.example.shared").at(kVXBundleURLKey).url(),
            developerApps.URLByAppendingPathComponent("Shared.app", true));

  // Built-in applications: the system's, the internal ones and the images' (read afresh).
  MakeBundle(device_ + "/Applications/Sys.app", {"com.example.system"});
  MakeBundle(device_ + "/TarselInternal/Applications/Int.app", {"com.example.internal"});
  MakeBundle(device_ + "/System/Library/CoreServices/Core.app", {"com.example.core"});
  EXPECT_EQ(config.builtInApplicationBundleIDs(),
            (IdentifierSet{"com.example.system", "com.example.internal", "com.example.shared",
                           "com.example.image"}));
  WriteMounts({{"loop10", device_ + "/Developer"}});
  EXPECT_EQ(config.builtInApplicationBundleIDs().count("com.example.image"), 0u);
  EXPECT_EQ(registry.openHandleCount(), open);  // every handle taken was given back

  const RegistryHandle controller = registry.getMatchingService("KzPlovController");
  EXPECT_NE(registry.createIterator(controller, "KzOtherPlane", true, nullptr), kRegistrySuccess);
  EXPECT_EQ(registry.release(controller), kRegistrySuccess);
  EXPECT_EQ(registry.release(controller), kRegistryErrorInvalidHandle);
}

TEST_F(DiskImageTest, MountTableEscapesAndFailures) {
  const auto entries = ParseMountTable("lonely\na\\134b /tab\\011x\\09 tmpfs rw 0 0\n");
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].mountedFrom + " " + entries[0].mountedOn, "a\\b /tab\tx\\09");

  AddLoop(0);  // a bound device, but no driver registered
  WriteMounts({{"loop0", "/mnt/x"}});
  VXGlobalConfiguration config(device_);
  test::LogCapture log;
  EXPECT_TRUE(config.diskImageMountPoints().empty());
  EXPECT_EQ(config.diskImageApplicationsDirectories(),
            std::vector<FileURL>{config.developerAppsDirectory()});
  EXPECT_TRUE(log.records().empty());

  // With a driver but an unreadable mount table each drive is passed over with a log line.
  AddLoopDriver();
  SetMountTablePath(tmp_ / "missing");
  EXPECT_TRUE(config.diskImageMountPoints().empty());
  EXPECT_EQ(log.messages(3),
            std::vector<std::string>{"getmntinfo failed: No such file or directory"});
  SetMountTablePath(tmp_ / "mounts");
  log.clear();
  EXPECT_EQ(config.mountPointForDevice(0), std::nullopt);
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].function + " " + log.records()[0].message,
            "-[VXGlobalConfiguration mountPointForDevice:] "
            "KzRegistryEntryCreateIterator failed for deviceObj (0)");
}

}  // namespace
}  // namespace vx
