// The installer service on the test binary's device: the safe-harbor register and the
// data-protection update of the data containers.
#include <gtest/gtest.h>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Fault.h"
#include "platform/installer/InstallerService.h"
#include "platform/plist/PlistFile.h"
#include "platform/workspace/Workspace.h"
#include "support/AppPackages.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"

namespace vx {
namespace {

using namespace test;

TEST(InstallerServiceTest, SafeHarborRegisterAcceptsDirectoriesOnly) {
  ResetTestDevice();
  const std::string harbors = "private/var/mobile/Harbors/";
  MakeDirs(DevicePath(harbors + "com.example.a"));
  MakeDirs(DevicePath(harbors + "com.example.b"));
  WriteFile(DevicePath(harbors + "file"), "not a directory");

  auto registerHarbor = [](const std::string& path, const char* identifier, int type) {
    return VelotrixRegisterSafeHarborForContainerType(path.c_str(), identifier, type, nullptr) != 0;
  };
  // Harbors are named as the device records them; a path already under the root works too.
  EXPECT_TRUE(registerHarbor("/" + harbors + "com.example.a", "com.example.a", 2));
  EXPECT_TRUE(registerHarbor(DevicePath(harbors + "com.example.b"), "com.example.b", 3));
  EXPECT_FALSE(registerHarbor("/" + harbors + "file", "com.example.file", 2));
  EXPECT_FALSE(registerHarbor("/" + harbors + "missing", "com.example.missing", 2));
  // Registering again replaces the entry rather than adding one.
  EXPECT_TRUE(registerHarbor("/" + harbors + "com.example.a", "com.example.a", 4));
  EXPECT_EQ(ReadPropertyListDictionary(
                DevicePath("private/var/mobile/Library/Velotrix/SafeHarborRegister.plist")),
            (PlistDictionary{
                {"com.example.a",
                 PlistDictionary{{"Path", "/" + harbors + "com.example.a"}, {"ContainerType", 4}}},
                {"com.example.b", PlistDictionary{{"Path", DevicePath(harbors + "com.example.b")},
                                                  {"ContainerType", 3}}}}));
}

TEST(InstallerServiceTest, DataProtectionUpdateSetsClassFourWhereAsked) {
  ResetTestDevice();
  MakeBundle(DevicePath("Applications/Clock.app"), {.identifier = "com.tarsel.clock"});
  VXGlobalConfiguration::sharedInstance().reScanSystemApps();
  DeviceWorkspace workspace(TestDeviceRoot());
  ASSERT_TRUE(InstallCustomerPackage(workspace, DevicePath("Staging"), "A.app",
                                     {.identifier = "com.example.a"}));
  const FileURL user = *workspace.bundleProxyForIdentifier("com.example.a")->dataContainerURL;
  const FileURL builtIn = *workspace.bundleProxyForIdentifier("com.tarsel.clock")->dataContainerURL;

  auto protectionClass = [](const FileURL& url) {
    int32_t value = -1;
    EXPECT_TRUE(
        VXFileManager::defaultManager().dataProtectionClassOfItemAtURL(url, &value, nullptr));
    return value;
  };
  ASSERT_TRUE(VelotrixUpdateContainerDataProtectionForMigratorOnly({}));
  EXPECT_EQ(protectionClass(user), 4);
  EXPECT_NE(protectionClass(builtIn), 4);

  ASSERT_TRUE(VelotrixUpdateContainerDataProtectionForMigratorOnly(
      {{kVXUpdateSystemAppDataContainerDataProtection, true}}));
  EXPECT_EQ(protectionClass(builtIn), 4);

  // A class that cannot be set is a failure, and the other containers are still done.
  fault::Arm(1, fault::Action::Fail, EIO);
  EXPECT_FALSE(VelotrixUpdateContainerDataProtectionForMigratorOnly(
      {{kVXUpdateSystemAppDataContainerDataProtection, true}}));
  EXPECT_GE(fault::MutationCount(), 2u);
  fault::Disarm();
  VXGlobalConfiguration::sharedInstance().reScanSystemApps();
}

}  // namespace
}  // namespace vx
