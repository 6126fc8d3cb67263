// `vxmigrate plan` against the run it foresees: on the sample device and on one that holds
// every kind of entry the old root can, the plan names each entry's course, changes nothing
// (the whole tree's digest before and after), and the run that follows takes the courses the
// plan named, which its report tells per container.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/plist/PlistFile.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "support/TreeDigest.h"

namespace vx {
namespace {

using nlohmann::json;
using namespace test;

const std::string kOldRoot = "private/var/mobile/Applications";

RunResult Host(const std::vector<std::string>& arguments, const std::string& tmp) {
  RunOptions options;
  options.environment["TMPDIR"] = tmp;
  options.timeout = std::chrono::seconds(120);
  return RunProgram(std::string(VX_BIN_DIR) + "/vxmigrate", arguments, options);
}

// The entries of the plan's one plug-in, by the last component of their paths.
std::map<std::string, json> EntriesByName(const json& plan) {
  std::map<std::string, json> entries;
  for (const json& entry : plan["plugins"][0]["entries"]) {
    entries[std::filesystem::path(entry["path"].get<std::string>()).filename()] = entry;
  }
  return entries;
}

// What the run's report calls the course the plan foresaw.
std::string ReportedCourse(const json& planned) {
  const std::string course = planned["course"], fate = planned["fate"];
  if (course == "stray-file") return fate == "recover" ? "stray-recovered" : "stray-removed";
  if (!planned["leftOvers"].empty()) return "migrated-leftovers-recovered";
  if (fate == "migrate") return "migrated";
  if (course == "no-bundle") return fate == "recover" ? "recovered-no-bundle" : "removed-no-bundle";
  if (fate == "recover") return "failed-bundle-recovered";
  return "left-hostile";
}

void ExpectRunFollowsPlan(const json& plan, const json& run) {
  std::map<std::string, json> reported;
  for (const json& c : run["plugins"][0]["containers"]) reported[c["path"]] = c;
  for (const json& planned : plan["plugins"][0]["entries"]) {
    const std::string path = planned["path"];
    if (!reported.count(path)) {
      // Only a link in the old root is no item of the run.
      EXPECT_NE(planned["reason"].get<std::string>().find("symbolic link"), std::string::npos);
      continue;
    }
    EXPECT_EQ(reported[path]["course"], ReportedCourse(planned)) << planned << reported[path];
    EXPECT_EQ(reported[path]["identifier"], planned["identifier"]) << path;
  }
}

TEST(PlanEndToEndTest, SampleDeviceIsForeseenWithoutATouchAndTheRunAgrees) {
  TempDir t;
  const std::string root = t / "device";
  ASSERT_EQ(Host({"sample-device", root}, t.path()).exitStatus, 0);
  const std::string before = TreeDigest(root);

  auto text = Host({"plan", "--root", root}, t.path());
  ASSERT_EQ(text.exitStatus, 0) << text.describe();
  EXPECT_LE(std::count(text.out.begin(), text.out.end(), '\n'), 40) << text.out;
  auto planned = Host({"plan", "--root", root, "--json"}, t.path());
  ASSERT_EQ(planned.exitStatus, 0) << planned.describe();
  EXPECT_EQ(TreeDigest(root), before) << "the plan changed the device";

  const json plan = json::parse(planned.out);
  EXPECT_TRUE(plan["complete"]);
  EXPECT_TRUE(plan["device"]["sameFileSystem"]);
  EXPECT_TRUE(plan["device"]["writable"]);
  size_t applications = 0, groups = 0;
  for (const json& e : plan["plugins"][0]["entries"]) {
    if (e["course"] == "stray-file") continue;
    ++applications;
    EXPECT_EQ(e["course"], "application") << e;
    EXPECT_GE(e["data"].size(), 3u) << e;
    groups += e["groups"].size();
    // The sample's older copy of a built-in application is known already and turned away.
    const bool builtIn = e["identifier"] == "com.example.cinder";
    EXPECT_EQ(e["installation"], builtIn ? "installed" : "placeholder") << e;
    EXPECT_EQ(e["refusal"].get<std::string>().empty(), !builtIn) << e;
  }
  EXPECT_EQ(applications, 24u);
  EXPECT_EQ(groups, 2u) << "the shared group moves once";
  EXPECT_EQ(plan["plugins"][0]["safeHarbors"].size(), 1u);

  auto run = Host({"migrate", "--root", root, "--json", "--no-progress", "--quiet"}, t.path());
  ASSERT_EQ(run.exitStatus, 0) << run.describe();
  ExpectRunFollowsPlan(plan, json::parse(run.out));
}

// With the workspace on another file system, every move would be a copy: the plan sets the
// bytes the run would write against the room there.
TEST(PlanEndToEndTest, WorkspaceOnAnotherFileSystemTurnsMovesIntoCopies) {
  TempDir t;
  std::string why;
  auto other = TempDirOnAnotherFileSystem(t.path(), &why);
  if (!other) GTEST_SKIP() << why;
  const TempDir& shm = *other;
  const std::string root = t / "device";
  ASSERT_EQ(Host({"sample-device", root, "--apps", "6"}, t.path()).exitStatus, 0);
  const std::string containers = root + "/private/var/mobile/Containers";
  std::filesystem::copy(containers, shm / "Containers", std::filesystem::copy_options::recursive);
  std::filesystem::remove_all(containers);
  MakeSymlink(shm / "Containers", containers);

  auto planned = Host({"plan", "--root", root, "--json"}, t.path());
  ASSERT_EQ(planned.exitStatus, 0) << planned.describe();
  const json plan = json::parse(planned.out);
  uint64_t moved = 0;
  for (const json& e : plan["plugins"][0]["entries"]) {
    if (e["fate"] != "migrate") continue;
    moved += e["bundleBytes"].get<uint64_t>();
    for (const json& item : e["data"]) moved += item["bytes"].get<uint64_t>();
    for (const json& group : e["groups"]) moved += group["bytes"].get<uint64_t>();
  }
  EXPECT_FALSE(plan["device"]["sameFileSystem"]) << plan["device"];
  EXPECT_GT(moved, 0u);
  EXPECT_EQ(plan["device"]["bytesToCopy"], moved);
  EXPECT_TRUE(plan["device"]["userExtendedAttributes"]);
}

// The same copy into a file system too small for it (a tmpfs of a few blocks, mounted in a
// mount namespace of the plan's own): the plan says it would not fit.
TEST(PlanEndToEndTest, CopyThatCannotFitIsNoPlanThatCompletes) {
  TempDir t;
  const std::string root = t / "device";
  ASSERT_EQ(Host({"sample-device", root, "--apps", "6"}, t.path()).exitStatus, 0);
  const std::string containers = root + "/private/var/mobile/Containers";
  std::filesystem::rename(containers, t / "saved");
  MakeDirs(t / "small");
  MakeSymlink(t / "small", containers);
  RunOptions options;
  options.environment["TMPDIR"] = t.path();
  const std::string script = "mount -t tmpfs -o size=64k,nr_inodes=64 tmpfs '" + (t / "small") +
                             "' && cp -a '" + (t / "saved") + "/.' '" + (t / "small") +
                             "/' && exec '" + std::string(VX_BIN_DIR) + "/vxmigrate' plan --root '" + root + "' --json";
  auto planned = RunProgram("/usr/bin/unshare", {"--mount", "--map-root-user", "sh", "-c", script},
                            options);
  if (planned.out.empty()) {
    GTEST_SKIP() << "no mount namespace with a small file system here: " << planned.describe();
  }
  ASSERT_EQ(planned.exitStatus, 1) << planned.describe();
  const json plan = json::parse(planned.out);
  EXPECT_FALSE(plan["complete"]);
  EXPECT_FALSE(plan["device"]["sameFileSystem"]);
  EXPECT_NE(plan["device"]["problems"].dump().find("would be copied, but only"), std::string::npos)
      << plan["device"];
}

// One entry that stops the run stops the device, wherever the old root lists it: two devices
// of the same names, each with the other entry stopping, so that in one of them the stopping
// entry is not the last one listed.
TEST(PlanEndToEndTest, AnyEntryThatStopsMakesTheDeviceIncomplete) {
  TempDir t;
  for (const char* stopping : {"A", "B"}) {
    const std::string root = t / (std::string(stopping) + "/device");
    ASSERT_EQ(Host({"sample-device", root, "--apps", "0"}, t.path()).exitStatus, 0);
    const std::string old = root + "/" + kOldRoot;
    for (const char* name : {"A", "B"}) {
      MakeDirs(old + "/" + name + "/Documents");
      if (std::string(name) == stopping) {
        MakeSymlink("/etc", old + "/" + name + "/Linked.app");
      } else {
        WriteFile(old + "/" + name + "/Documents/kept", "the user's");
      }
    }
    auto planned = Host({"plan", "--root", root, "--json"}, t.path());
    EXPECT_EQ(planned.exitStatus, 1) << stopping << ": " << planned.describe();
    EXPECT_FALSE(json::parse(planned.out)["complete"]) << stopping;
  }
}

void WriteBundle(const std::string& bundle, const std::string& identifier) {
  WriteFile(bundle + "/Info.plist",
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>KBBundleIdentifier</key>"
            "<string>" +
                identifier +
                "</string><key>KBBundleVersion</key><string>1.0</string>"
                "<key>KBBundleExecutable</key><string>Run</string></dict></plist>");
  WriteFile(bundle + "/Run", "#!/bin/sh\n");
}

// A marker in `container` that names, as device paths, the container `named` of the old root
// and the bundle `bundle` in it.
void WriteMarker(const std::string& container, const std::string& named, const std::string& bundle,
                 const std::string& identifier) {
  const std::string namedPath = "/" + kOldRoot + "/" + named;
  ASSERT_TRUE(
      WritePropertyListFile(container + "/com.tarsel.velotrix.container_migrator.plist",
                            PlistValue(PlistDictionary{{"ContainerPath", namedPath},
                                                       {"BundlePath", namedPath + "/" + bundle},
                                                       {"ContainerType", "App"},
                                                       {"BundleIdentifier", identifier}})));
}

TEST(PlanEndToEndTest, HostileDeviceCoursesAreNamedAndTheFailingContainerIsReported) {
  TempDir t, outside;
  const std::string root = t / "device";
  ASSERT_EQ(Host({"sample-device", root, "--apps", "3"}, t.path()).exitStatus, 0);
  const auto in = [&](const std::string& relative) {
    return root + "/" + kOldRoot + "/" + relative;
  };

  WriteFile(in("Corrupt/Broken.app/Info.plist"), "not a property list");
  WriteFile(in("Corrupt/Documents/kept.txt"), "the user's");
  MakeDirs(in("Skeleton/tmp"));
  WriteFile(in("notes.txt"), "a stray file");
  WriteBundle(in("Tunnel/Tunnel.vpnplugin"), "com.example.beacon.tunnel");
  WriteFile(in("Tunnel/Documents/state"), "12345");
  MakeDirs(in("Linked/Documents"));
  MakeSymlink("/etc", in("Linked/Linked.app"));
  MakeSymlink(outside.path(), in("LinkInRoot"));
  // A marker that names another container is planted, whatever bundle lies beside it.
  WriteBundle(in("Planted/Planted.app"), "com.example.planted");
  WriteMarker(in("Planted"), "Tunnel", "Tunnel.vpnplugin", "com.example.planted");
  // One a cut-off run left: its own marker describes it.
  WriteBundle(in("Resumed/Resumed.app"), "com.example.resumed");
  WriteMarker(in("Resumed"), "Resumed", "Resumed.app", "com.example.resumed");
  // Where staging would go, a link out of the container; beside the data, a FIFO that must
  // not stop the plan and a link whose target's bytes must not be counted.
  WriteBundle(in("Staged/Staged.app"), "com.example.staged");
  MakeSymlink(outside.path(), in("Staged/Staging"));
  WriteFile(in("Staged/Documents/real"), std::string(1000, 'x'));
  WriteFile(outside / "big", std::string(1 << 20, 'y'));
  MakeSymlink(outside / "big", in("Staged/Documents/big"));
  ASSERT_EQ(::mkfifo(in("Staged/Documents/pipe").c_str(), 0666), 0);

  const std::string before = TreeDigest(root);
  auto planned = Host({"plan", "--root", root, "--json"}, t.path());
  ASSERT_EQ(planned.exitStatus, 1) << planned.describe();
  EXPECT_EQ(TreeDigest(root), before) << "the plan changed the device";

  const json plan = json::parse(planned.out);
  EXPECT_FALSE(plan["complete"]);
  std::map<std::string, json> entries = EntriesByName(plan);
  const std::map<std::string, std::pair<std::string, std::string>> expected{
      {"Corrupt", {"no-bundle", "recover"}},    {"Skeleton", {"no-bundle", "remove"}},
      {"notes.txt", {"stray-file", "recover"}}, {"Tunnel", {"vpn-only", "migrate"}},
      {"Linked", {"symlink-bundle", "leave"}},  {"LinkInRoot", {"hostile", "leave"}},
      {"Planted", {"hostile", "leave"}},        {"Resumed", {"resumed", "migrate"}},
      {"Staged", {"hostile", "recover"}}};
  for (const auto& [name, course] : expected) {
    ASSERT_TRUE(entries.count(name)) << name << "\n" << planned.out;
    EXPECT_EQ(entries[name]["course"], course.first) << entries[name];
    EXPECT_EQ(entries[name]["fate"], course.second) << entries[name];
  }
  EXPECT_EQ(entries["Tunnel"]["identifier"], "com.example.beacon.tunnel");
  EXPECT_EQ(entries["Resumed"]["identifier"], "com.example.resumed");
  EXPECT_NE(entries["Planted"]["reason"].get<std::string>().find("not the container it lies in"),
            std::string::npos)
      << entries["Planted"];
  EXPECT_EQ(entries["Staged"]["data"][0], json::parse(R"({"name": "Documents", "files": 1,
      "bytes": 1000})"))
      << "a link's target is never counted, a FIFO never opened";

  auto run = Host({"migrate", "--root", root, "--json", "--count", "--no-progress", "--quiet"},
                  t.path());
  ASSERT_EQ(run.exitStatus, 1) << run.describe();
  const json report = json::parse(run.out);
  ExpectRunFollowsPlan(plan, report);
  for (const json& c : report["plugins"][0]["containers"]) {
    if (c["path"] != in("Staged")) continue;
    EXPECT_EQ(c["identifier"], "com.example.staged");
    EXPECT_EQ(c["course"], "failed-bundle-recovered");
    EXPECT_NE(c["reason"].get<std::string>().find("Staging"), std::string::npos) << c;
    EXPECT_EQ(c["dataItems"], 1);
    EXPECT_EQ(c["dataBytes"], 1000);
  }
}

}  // namespace
}  // namespace vx
