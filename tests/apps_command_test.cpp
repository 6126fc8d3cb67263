// `vxmigrate apps` on a device directory, run as a separate process.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/workspace/Workspace.h"
#include "support/AppPackages.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using namespace test;

TEST(AppsCommandTest, ListsBuiltInInstalledAndPlaceholderApplications) {
  TempDir device;
  MakeBundle(device / "Applications/Maps.app",
             {.identifier = "com.tarsel.maps", .version = "7.0", .groups = {"group.maps"}});
  {
    DeviceWorkspace workspace(device.path());
    ASSERT_TRUE(InstallCustomerPackage(
        workspace, device / "Staging", "Demo.app",
        {.identifier = "com.example.demo", .version = "1.2", .groups = {"group.demo"}}));
    ASSERT_TRUE(
        InstallPlaceholder(workspace, device / "tmp/Held.app", {.identifier = "com.example.held"}));
  }
  // The device is the one named, whatever the environment says.
  RunOptions options;
  options.environment["VX_DEVICE_ROOT"] = std::nullopt;
  const std::string host = std::string(VX_BIN_DIR) + "/vxmigrate";

  const RunResult run = RunProgram(host, {"apps", "--json", "--root", device.path()}, options);
  ASSERT_EQ(run.exitStatus, 0) << run.describe();
  std::map<std::string, nlohmann::json> listed;
  for (const auto& entry : nlohmann::json::parse(run.out)) listed[entry.at("identifier")] = entry;
  ASSERT_EQ(listed.size(), 3u) << run.out;

  const auto& maps = listed.at("com.tarsel.maps");
  EXPECT_EQ(maps.at("kind"), "built-in");
  EXPECT_EQ(maps.at("version"), "7.0");
  EXPECT_EQ(maps.at("bundlePath"), device / "Applications/Maps.app");
  // Listing only looks: the built-in application's data container is not made by it.
  EXPECT_TRUE(maps.at("dataContainerPath").is_null());
  EXPECT_EQ(DirectoryEntries(device / "private/var/mobile/Containers/Data").size(), 2u);

  const auto& demo = listed.at("com.example.demo");
  EXPECT_EQ(demo.at("kind"), "user");
  EXPECT_EQ(demo.at("version"), "1.2");
  EXPECT_TRUE(Exists(demo.at("bundlePath").get<std::string>() + "/Info.plist"));
  EXPECT_TRUE(Exists(demo.at("dataContainerPath").get<std::string>() + "/Documents"));
  EXPECT_TRUE(Exists(demo.at("groupContainers").value("group.demo", "/absent")));
  EXPECT_EQ(listed.at("com.example.held").at("kind"), "placeholder");

  const RunResult text = RunProgram(host, {"apps", "--root", device.path()}, options);
  ASSERT_EQ(text.exitStatus, 0) << text.describe();
  EXPECT_NE(text.out.find("com.tarsel.maps  built-in  7.0\n"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace vx
