// Disk-image discovery over a sysfs tree and a mount table made by the test.
#include <gtest/gtest.h>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/DeviceRegistry.h"
#include "platform/InstallerLog.h"
#include "platform/MountTable.h"
#include "platform/PlistFile.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

class DiskImageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeDirs(device_);
    DeviceRegistry::shared().setSysfsRoot(sysfs_);
    SetMountTablePath(tmp_ / "mounts");
  }
  void TearDown() override {
    DeviceRegistry::shared().setSysfsRoot("/sys");
    SetMountTablePath("/proc/self/mounts");
  }

  static void MakeDirs(const std::string& path) { test::MakeDirs(path); }
  void AddLoopDriver() { MakeDirs(sysfs_ + "/module/loop"); }
  // A loop device; with a backing file it is a disk-image drive.
  void AddLoop(int n, int partitions, bool bound = true) {
    const std::string device = sysfs_ + "/block/loop" + std::to_string(n);
    MakeDirs(device);
    if (bound) {
      MakeDirs(device + "/loop");
      test::WriteFile(device + "/loop/backing_file", "/images/" + std::to_string(n) + ".img\n");
    }
    for (int p = 1; p <= partitions; ++p) {
      const std::string name = "loop" + std::to_string(n) + "p" + std::to_string(p);
      MakeDirs(device + "/" + name);
      test::WriteFile(device + "/" + name + "/partition", std::to_string(p) + "\n");
    }
  }
  void WriteMounts(const std::string& table) { test::WriteFile(tmp_ / "mounts", table); }
  void AddApp(const std::string& directory, const std::string& name, const std::string& id) {
    MakeDirs(directory + "/" + name + ".app");
    ASSERT_TRUE(WritePropertyListFile(directory + "/" + name + ".app/Info.plist",
                                      PlistDictionary{{"KBBundleIdentifier", PlistValue(id)}}));
  }

  test::TempDir tmp_;
  const std::string sysfs_ = tmp_ / "sys";
  const std::string device_ = tmp_ / "device";
};

TEST_F(DiskImageTest, MountTableDecodesEscapesAndFailsWithErrno) {
  auto entries = ParseMountTable(
      "/dev/loop0p1 /mnt/two\\040words ext4 rw 0 0\n"
      "lonely\n"
      "a\\134b /tab\\011x\\09 tmpfs rw 0 0\n");
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].mountedFrom, "/dev/loop0p1");
  EXPECT_EQ(entries[0].mountedOn, "/mnt/two words");
  EXPECT_EQ(entries[1].mountedFrom, "a\\b");
  EXPECT_EQ(entries[1].mountedOn, "/tab\tx\\09");

  std::vector<MountEntry> table;
  errno = 0;
  EXPECT_EQ(getmntinfo(&table), 0u);  // the file was never written
  EXPECT_EQ(errno, ENOENT);
  SetMountTablePath("/proc/self/mounts");
  EXPECT_GT(getmntinfo(&table), 0u);
}

TEST_F(DiskImageTest, DiscoveryOverDrivesPartitionsAndMountPoints) {
  AddLoopDriver();
  AddLoop(0, 2);  // two mounted partitions: only the first counts
  AddLoop(1, 0, /*bound=*/false);
  AddLoop(2, 0);   // mounted in the debug area
  AddLoop(3, 0);   // nothing mounted from it, though loop3p1 and loop1 are
  AddLoop(10, 0);  // mounted on the device's developer directory
  const std::string image = tmp_ / "image one";
  WriteMounts("/dev/loop1 " + (tmp_ / "unbound") + " ext4 rw 0 0\n" + "/dev/loop0p2 " +
              (tmp_ / "second") + " ext4 rw 0 0\n" + "/dev/loop0p1 " + tmp_.path() +
              "/image\\040one ext4 rw 0 0\n" + "/dev/loop3p1 " + (tmp_ / "p1") + " ext4 rw 0 0\n" +
              "/dev/loop2 /private/var/debug_mount/dbg ext4 ro 0 0\n" + "/dev/loop10 " + device_ +
              "/Developer hfs ro 0 0\n");
  VXGlobalConfiguration config(device_);
  const size_t open = DeviceRegistry::shared().openHandleCount();

  EXPECT_EQ(
      config.diskImageMountPoints(),
      (std::vector<std::string>{image, "/private/var/debug_mount/dbg", device_ + "/Developer"}));
  const FileURL developerApps = config.developerAppsDirectory();
  EXPECT_EQ(developerApps, FileURL::fileURLWithPath(device_ + "/Developer/Applications", true));
  EXPECT_EQ(config.diskImageApplicationsDirectories(),
            (std::vector<FileURL>{FileURL::fileURLWithPath(image + "/Applications", true),
                                  developerApps}));

  // The developer image comes later in the list, so its record wins for a shared identifier.
  AddApp(image + "/Applications", "Shared", "com.example.shared");
  AddApp(image + "/Applications", "OnImage", "com.example.image");
  AddApp(developerApps.path(), "Shared", "com.example.shared");
  BundleMap apps = config.diskImageAppBundleIDToInfoMap();
  ASSERT_EQ(apps.size(), 2u);
  EXPECT_EQ(*apps.at("com.example.shared").at(kVXBundleURLKey).url(),
            developerApps.URLByAppendingPathComponent("Shared.app", true));
  // Every handle taken on the way was given back.
  EXPECT_EQ(DeviceRegistry::shared().openHandleCount(), open);

  DeviceRegistry& registry = DeviceRegistry::shared();
  const RegistryHandle controller = registry.getMatchingService("KzPlovController");
  RegistryHandle iterator = 0;
  EXPECT_NE(registry.createIterator(controller, "KzOtherPlane", true, &iterator), kRegistrySuccess);
  EXPECT_EQ(registry.release(controller), kRegistrySuccess);
  EXPECT_EQ(registry.release(controller), kRegistryErrorInvalidHandle);
}

TEST_F(DiskImageTest, NoLoopDriverMeansOnlyTheDeveloperDirectory) {
  AddLoop(0, 0);  // a bound device, but no driver registered
  WriteMounts("/dev/loop0 /mnt/x ext4 rw 0 0\n");
  VXGlobalConfiguration config(device_);
  test::LogCapture log;
  EXPECT_TRUE(config.diskImageMountPoints().empty());
  EXPECT_EQ(config.diskImageApplicationsDirectories(),
            std::vector<FileURL>{config.developerAppsDirectory()});
  EXPECT_TRUE(config.diskImageAppBundleIDToInfoMap().empty());
  EXPECT_TRUE(log.records().empty());

  // With a driver but an unreadable mount table each drive is passed over with a log line.
  AddLoopDriver();
  SetMountTablePath(tmp_ / "missing");
  EXPECT_TRUE(config.diskImageMountPoints().empty());
  EXPECT_EQ(log.messages(3),
            std::vector<std::string>{"getmntinfo failed: No such file or directory"});
  WriteMounts("/dev/loop0 /mnt/x ext4 rw 0 0\n");
  SetMountTablePath(tmp_ / "mounts");
  log.clear();
  EXPECT_EQ(config.mountPointForDevice(0), std::nullopt);
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].message, "KzRegistryEntryCreateIterator failed for deviceObj (0)");
  EXPECT_EQ(log.records()[0].function, "-[VXGlobalConfiguration mountPointForDevice:]");
}

TEST_F(DiskImageTest, BuiltInApplicationsJoinSystemInternalAndImages) {
  AddLoopDriver();
  AddLoop(0, 0);
  const std::string image = tmp_ / "img";
  WriteMounts("/dev/loop0 " + image + " ext4 rw 0 0\n");
  AddApp(device_ + "/Applications", "Sys", "com.example.system");
  AddApp(device_ + "/TarselInternal/Applications", "Int", "com.example.internal");
  AddApp(device_ + "/System/Library/CoreServices", "Core", "com.example.core");
  AddApp(device_ + "/Developer/Applications", "Dev", "com.example.developer");
  AddApp(image + "/Applications", "Img", "com.example.image");
  VXGlobalConfiguration config(device_);
  EXPECT_EQ(config.builtInApplicationBundleIDs(),
            (IdentifierSet{"com.example.system", "com.example.internal", "com.example.developer",
                           "com.example.image"}));
  // The images are looked at afresh on every call.
  WriteMounts("/dev/loop9 " + image + " ext4 rw 0 0\n");
  EXPECT_EQ(config.builtInApplicationBundleIDs().count("com.example.image"), 0u);
}

}  // namespace
}  // namespace vx
