// `vxmigrate apps` on a device directory, run as a separate process.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/Workspace.h"
#include "support/AppPackages.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"

namespace vx {
namespace {

test::RunResult RunApps(const std::vector<std::string>& arguments) {
  test::RunOptions options;
  options.environment["VX_DEVICE_ROOT"] = std::nullopt;
  return test::RunProgram(std::string(VX_BIN_DIR) + "/vxmigrate", arguments, options);
}

TEST(AppsCommandTest, ListsBuiltInInstalledAndPlaceholderApplications) {
  test::TempDir device;
  test::MakeBundle(device / "Applications/Maps.app",
                   {.identifier = "com.tarsel.maps", .version = "7.0", .groups = {"group.maps"}});
  test::MakeBundle(device / "Applications/Notes.app", {.identifier = "com.tarsel.notes"});
  {
    DeviceWorkspace workspace(device.path());
    ASSERT_TRUE(workspace.installApplication(
        FileURL::fileURLWithPath(
            test::MakeCustomerPackage(
                device / "Staging", "Demo.app",
                {.identifier = "com.example.demo", .version = "1.2", .groups = {"group.demo"}}),
            true),
        test::MigratorCustomerOptions("com.example.demo"), nullptr));
    ASSERT_TRUE(workspace.installApplication(
        FileURL::fileURLWithPath(
            test::MakeBundle(device / "tmp/Held.app", {.identifier = "com.example.held"}), true),
        test::PlaceholderOptions("com.example.held"), nullptr));
  }
  const auto dataBefore = test::DirectoryEntries(device / "private/var/mobile/Containers/Data");

  const test::RunResult run = RunApps({"apps", "--json", "--root", device.path()});
  ASSERT_TRUE(run.exited() && run.exitStatus == 0) << run.describe();
  const auto list = nlohmann::json::parse(run.out, nullptr, false);
  ASSERT_TRUE(list.is_array()) << run.out;
  ASSERT_EQ(list.size(), 4u) << run.out;
  std::map<std::string, nlohmann::json> byIdentifier;
  for (const auto& entry : list) byIdentifier[entry.at("identifier").get<std::string>()] = entry;

  const auto& maps = byIdentifier.at("com.tarsel.maps");
  EXPECT_EQ(maps.at("kind"), "built-in");
  EXPECT_EQ(maps.at("version"), "7.0");
  EXPECT_EQ(maps.at("bundlePath"), device / "Applications/Maps.app");
  // Listing only looks: the built-in application's data container is not made by it.
  EXPECT_TRUE(maps.at("dataContainerPath").is_null());
  EXPECT_EQ(byIdentifier.at("com.tarsel.notes").at("kind"), "built-in");

  const auto& demo = byIdentifier.at("com.example.demo");
  EXPECT_EQ(demo.at("kind"), "user");
  EXPECT_EQ(demo.at("version"), "1.2");
  EXPECT_TRUE(test::Exists(demo.at("bundlePath").get<std::string>() + "/Info.plist"));
  EXPECT_TRUE(test::Exists(demo.at("dataContainerPath").get<std::string>() + "/Documents"));
  ASSERT_TRUE(demo.at("groupContainers").contains("group.demo"));
  EXPECT_TRUE(test::Exists(demo.at("groupContainers").at("group.demo").get<std::string>()));
  EXPECT_EQ(byIdentifier.at("com.example.held").at("kind"), "placeholder");
  EXPECT_EQ(test::DirectoryEntries(device / "private/var/mobile/Containers/Data"), dataBefore);

  const test::RunResult text = RunApps({"apps", "--root", device.path()});
  ASSERT_TRUE(text.exited() && text.exitStatus == 0) << text.describe();
  EXPECT_NE(text.out.find("com.tarsel.maps  built-in  7.0"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace vx
