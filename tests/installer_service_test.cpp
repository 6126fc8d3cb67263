// The installer service on the test binary's device: the safe-harbor register and the
// data-protection update of the data containers.
#include <gtest/gtest.h>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/Fault.h"
#include "platform/InstallerService.h"
#include "platform/PlistFile.h"
#include "platform/Workspace.h"
#include "support/AppPackages.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"

namespace vx {
namespace {

using test::DevicePath;

std::optional<PlistDictionary> Register() {
  return ReadPropertyListDictionary(
      DevicePath("private/var/mobile/Library/Velotrix/SafeHarborRegister.plist"));
}

TEST(InstallerServiceTest, SafeHarborRegisterAcceptsDirectoriesOnly) {
  test::ResetTestDevice();
  test::MakeDirs(DevicePath("private/var/mobile/Harbors/com.example.a"));
  test::MakeDirs(DevicePath("private/var/mobile/Harbors/com.example.b"));
  test::WriteFile(DevicePath("private/var/mobile/Harbors/file"), "not a directory");

  auto registerHarbor = [](const std::string& path, const char* identifier, int type) {
    return VelotrixRegisterSafeHarborForContainerType(path.c_str(), identifier, type, nullptr);
  };
  // Harbors are named as the device records them; a path already under the root works too.
  EXPECT_NE(registerHarbor("/private/var/mobile/Harbors/com.example.a", "com.example.a", 2), 0);
  EXPECT_NE(
      registerHarbor(DevicePath("private/var/mobile/Harbors/com.example.b"), "com.example.b", 3),
      0);
  EXPECT_EQ(registerHarbor("/private/var/mobile/Harbors/file", "com.example.file", 2), 0);
  EXPECT_EQ(registerHarbor("/private/var/mobile/Harbors/missing", "com.example.missing", 2), 0);

  auto entries = Register();
  ASSERT_TRUE(entries);
  EXPECT_EQ(entries->size(), 2u);
  const PlistValue all(*entries);
  const PlistDictionary* a = all.dictionaryForKey("com.example.a");
  ASSERT_TRUE(a);
  EXPECT_EQ(*a->at("Path").string(), "/private/var/mobile/Harbors/com.example.a");
  EXPECT_EQ(a->at("ContainerType").int64Value(), 2);

  // Registering again replaces the entry rather than adding one.
  EXPECT_NE(registerHarbor("/private/var/mobile/Harbors/com.example.a", "com.example.a", 4), 0);
  entries = Register();
  EXPECT_EQ(entries->size(), 2u);
  EXPECT_EQ(
      PlistValue(*entries).dictionaryForKey("com.example.a")->at("ContainerType").int64Value(), 4);
}

TEST(InstallerServiceTest, DataProtectionUpdateSetsClassFourWhereAsked) {
  test::ResetTestDevice();
  test::MakeBundle(DevicePath("Applications/Clock.app"), {.identifier = "com.tarsel.clock"});
  VXGlobalConfiguration::sharedInstance().reScanSystemApps();
  DeviceWorkspace workspace(test::TestDeviceRoot());
  ASSERT_TRUE(workspace.installApplication(
      FileURL::fileURLWithPath(test::MakeCustomerPackage(DevicePath("Staging"), "A.app",
                                                         {.identifier = "com.example.a"}),
                               true),
      test::MigratorCustomerOptions("com.example.a"), nullptr));
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
