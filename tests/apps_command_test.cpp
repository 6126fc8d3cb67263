// `vxmigrate apps` on a device directory, run as a separate process.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/plist/PlistFile.h"
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

bool HasRawControls(const std::string& text) {
  return text.find_first_of("\x1b\x07\r") != std::string::npos ||
         text.find("\nforged") != std::string::npos;
}

// Applications write their own Info.plist: one nesting 100,000 arrays deep in each encoding
// (the parser beneath would overflow its stack) and one whose identifier carries a
// terminal's control bytes. Planning and migrating go on past them, the deep ones get the
// reason, and no raw control byte reaches a person's output or the log.
TEST(AppsCommandTest, HostileInformationListsNeitherStopTheRunNorReachTheTerminalRaw) {
  TempDir t;
  const std::string root = t / "device";
  RunOptions options;
  options.environment["VX_DEVICE_ROOT"] = std::nullopt;
  options.environment["TMPDIR"] = t.path();
  const auto host = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--root", root});
    RunResult run = RunProgram(std::string(VX_BIN_DIR) + "/vxmigrate", arguments, options);
    EXPECT_TRUE(run.exited()) << run.describe();
    return run;
  };
  ASSERT_EQ(RunProgram(std::string(VX_BIN_DIR) + "/vxmigrate",
                       {"sample-device", root, "--apps", "2"}, options).exitStatus, 0);
  const std::string old = root + "/private/var/mobile/Applications/";
  // Each array holds the next; 900 KB in all.
  std::vector<uint8_t> deep{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  const auto put = [&deep](uint64_t v, int width) {
    for (int i = width - 1; i >= 0; --i) deep.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  constexpr uint32_t kDepth = 100'000;
  for (uint32_t i = 0; i + 1 < kDepth; ++i) deep.push_back(0xA1), put(i + 1, 4);
  deep.push_back(0xA0);
  const uint64_t table = deep.size();
  for (uint32_t i = 0; i < kDepth; ++i) put(8 + uint64_t{i} * 5, 4);
  deep.insert(deep.end(), {0, 0, 0, 0, 0, 0, 4, 4});
  put(kDepth, 8), put(0, 8), put(table, 8);
  std::string xml = "<plist>";
  for (int i = 0; i < 100'000; ++i) xml += "<array>";
  WriteFile(old + "DEEP-BINARY/Deep.app/Info.plist", std::string(deep.begin(), deep.end()));
  WriteFile(old + "DEEP-XML/Deep.app/Info.plist", xml);
  const std::vector<uint8_t> forged = SerializePropertyList(
      PlistDictionary{{"KBBundleIdentifier", "com.e\x1b]0;owned\x07\x1b[2J\rx\nforged"},
                      {"KBBundleExecutable", "Run"},
                      {"KBBundleVersion", "1"}},
      PlistFormat::Binary);
  WriteFile(old + "ESCAPE/Escape.app/Info.plist", std::string(forged.begin(), forged.end()));
  MakeDirs(old + "ESCAPE/Documents");

  const RunResult planText = host({"plan"});
  EXPECT_FALSE(HasRawControls(planText.out + planText.err)) << planText.out;
  const RunResult planned = host({"plan", "--json"});
  std::map<std::string, nlohmann::json> entries;
  const nlohmann::json plan = nlohmann::json::parse(planned.out);
  for (const auto& e : plan["plugins"][0]["entries"]) {
    entries[e["path"].get<std::string>().substr(old.size())] = e;
  }
  for (const char* name : {"DEEP-BINARY", "DEEP-XML"}) {
    EXPECT_NE(entries[name]["reason"].get<std::string>().find(": nesting deeper than 256"),
              std::string::npos) << entries[name];
  }

  const RunResult run = host({"migrate", "--no-progress"});
  EXPECT_FALSE(HasRawControls(run.out + run.err)) << run.out << run.err;
  const std::string log = ReadFile(root + "/private/var/mobile/Library/Logs/Transhift/migration.log");
  EXPECT_NE(log.find("nesting deeper than 256"), std::string::npos);
  EXPECT_NE(log.find("com.e\\x1b]0;owned\\x07"), std::string::npos);
  EXPECT_FALSE(HasRawControls(log));
  const RunResult apps = host({"apps"});
  EXPECT_FALSE(HasRawControls(apps.out + apps.err)) << apps.out;
  // Both sample applications migrated past the hostile ones.
  size_t migrated = 0;
  const nlohmann::json listed = nlohmann::json::parse(host({"apps", "--json"}).out);
  for (const auto& app : listed) {
    migrated += app["kind"] == "user" && app["dataContainerPath"].is_string();
  }
  EXPECT_GE(migrated, 2u) << apps.out;
}

}  // namespace
}  // namespace vx
