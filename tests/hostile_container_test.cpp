// Old containers are written by their applications and the migrator runs as root: each test
// here plants what a hostile application could, and shows that the migration keeps to the
// container, takes the written course for a marker that does not load or a step that
// fails, and neither hangs nor reaches out of the container.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "host/sample/ManifestCheck.h"
#include "host/sample/SampleDevice.h"
#include "platform/workspace/WorkspaceLayout.h"
#include "support/AppPackages.h"
#include "platform/workspace/Workspace.h"
#include "support/MigratorTestKit.h"
#include "support/RunProgram.h"
#include "support/SmallDevice.h"

namespace vx {
namespace {

using namespace vx::test;
namespace fs = std::filesystem;

constexpr const char* kLoad = "-[VXAppMigrator _loadAndValidateMigrationMarkerAtURL:]";
constexpr const char* kIntrospect = "-[VXAppMigrator _introspectContainer:orderResultEarly:]";

// Every entry below `root`, links as links, with a file's content or an entry's kind: what
// must look the same after a run that may not touch it.
std::map<std::string, std::string> Tree(const std::string& root) {
  std::map<std::string, std::string> tree;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string path = it->path().string();
    const fs::file_status status = fs::symlink_status(it->path());
    std::string& what = tree[path.substr(root.size())];
    if (fs::is_symlink(status)) {
      what = "-> " + fs::read_symlink(it->path()).string();
    } else if (fs::is_regular_file(status)) {
      what = ReadFile(path);
    } else {
      what = fs::is_directory(status) ? "dir" : "other";
    }
  }
  return tree;
}

class HostileContainerTest : public AppContainerTest {
 protected:
  // Runs `step` and gives up waiting after a while: a FIFO is then opened for writing, which
  // releases a reader stuck on it, and the test fails.
  bool bounded(const std::function<bool()>& step, const std::string& fifo) {
    auto running = std::async(std::launch::async, step);
    if (running.wait_for(std::chrono::seconds(30)) == std::future_status::timeout) {
      ADD_FAILURE() << "the migration waits on " << fifo;
      const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
      if (fd >= 0) ::close(fd);
    }
    return running.get();
  }

  TempDir outside;  // a directory of the machine, beyond the device
};

TEST_F(HostileContainerTest, PlantedMarkersSpeakOnlyForTheDirectoryTheyLieIn) {
  const ContainerInfo b = app("B");
  const std::string victim = outside / "victim";
  WriteFile(victim + "/Documents/secret", "the machine's");
  MakeBundle(outside / "Loot.app", {.identifier = "com.loot"});
  const std::string bOnDevice = OnDevice(OldContainer("B"));

  // Each planter keeps its own bundle, so a marker that fails leaves it in place.
  const auto plant = [&](const std::string& name, const std::string& container,
                         const std::string& bundle, bool withBundle = true) {
    if (withBundle) {
      app(name);
    } else {
      WriteFile(OldContainer(name) + "/Documents/notes", "notes of " + name);
    }
    const PlistDictionary record{{"ContainerPath", container}, {"BundlePath", bundle},
                                 {"ContainerType", "App"}, {"BundleIdentifier", "com.B"}};
    EXPECT_TRUE(WritePropertyListFile(OldContainer(name) + kMarker, PlistValue(record)));
    return OldContainer(name) + kMarker;
  };
  const std::string own = "/private/var/mobile/Applications/";
  const std::map<std::string, std::string> containerRefused = {
      {plant("E1", bOnDevice, bOnDevice + "/B.app"), bOnDevice},
      {plant("E2", victim, outside / "Loot.app"), victim},
      {plant("E3", "/../../.." + victim, "/../../.." + victim + "/Loot.app"),
       "/../../.." + victim},
      {plant("E4", bOnDevice, bOnDevice + "/B.app", false), bOnDevice}};
  const std::map<std::string, std::string> bundleRefused = {
      {plant("E5", own + "E5", bOnDevice + "/B.app"), bOnDevice + "/B.app"},
      {plant("E6", own + "E6", outside / "Loot.app"), outside / "Loot.app"},
      {plant("E7", own + "E7", own + "E7/../B/B.app"), own + "E7/../B/B.app"},
      {plant("E8", own + "E8", own + "E8/Staging/Payload/Loot.app"),
       own + "E8/Staging/Payload/Loot.app"}};
  MakeSymlink(outside.path(), OldContainer("E8/Staging"));
  const auto before = Tree(outside.path());

  create();
  EXPECT_FALSE(migrator->performMigration()) << "the planters stay for a person to look at";
  for (const auto& [marker, named] : containerRefused) {
    EXPECT_TRUE(Logged(3, "Migration marker file " + marker + " names container " + named +
                              ", which is not the container it lies in", kLoad));
    EXPECT_TRUE(log.contains("VXAppMigrator: Failed to load migration marker file from " + marker,
                             3));
  }
  for (const auto& [marker, named] : bundleRefused) {
    EXPECT_TRUE(Logged(3, "Migration marker file " + marker + " names bundle " + named +
                              ", which does not lie inside its container", kLoad));
  }
  // B migrated as itself, and nothing of it went to a planter.
  EXPECT_EQ(ReadFile(data("B") + "/Documents/notes"), "notes of B");
  EXPECT_FALSE(Exists(*b.at("ContainerPath").string()));
  for (const char* e : {"E1", "E2", "E3", "E5", "E6", "E7", "E8"}) {
    EXPECT_EQ(ReadFile(OldContainer(e) + "/Documents/notes"), std::string("notes of ") + e);
    EXPECT_TRUE(Exists(OldContainer(e) + "/" + e + ".app")) << e;
    EXPECT_TRUE(DirectoryEntries(data(e)).empty()) << e;
  }
  // A planter without a bundle has nothing to resume: it goes, and only it.
  EXPECT_FALSE(Exists(OldContainer("E4")));
  EXPECT_TRUE(log.contains("items remain unmigrated", 3));
  EXPECT_EQ(Tree(outside.path()), before) << "nothing outside the device was touched";
  ASSERT_EQ(workspace.installs.size(), 1u);
  EXPECT_EQ(workspace.installs[0].location.path(), OldContainer("B/Staging"));
}

TEST_F(HostileContainerTest, StagingLinksFailTheStepAndNothingIsWrittenThroughThem) {
  WriteFile(outside / "Manifest.plist", "theirs");
  MakeDirs(outside / "Payload");
  const ContainerInfo s1 = app("S1"), s2 = app("S2");
  for (const char* s : {"S1", "S2"}) WriteFile(OldContainer(s) + "/Manifest.plist", "ours");
  MakeSymlink(outside.path(), OldContainer("S1/Staging"));
  MakeDirs(OldContainer("S2/Staging"));
  MakeSymlink(outside / "Payload", OldContainer("S2/Staging/Payload"));
  const auto before = Tree(outside.path());

  // The data moves first; the failed staging then takes the course of a failed
  // installation: the container goes, links and all, and nothing goes through them. A
  // "Staging" directory of the application's own is set aside before the name is used (this
  // one, holding only a link, is removed) and the installation goes on.
  for (const ContainerInfo& record : {s1, s2}) {
    const std::string c = *record.at("ContainerPath").string();
    const bool own = c.ends_with("S2");
    EXPECT_EQ(migrator->_migrateContainerWithInfo(record), own) << c;
    EXPECT_EQ(log.contains("VXAppMigrator: Failed to create " + c + "/Staging/Payload : ", 3),
              !own);
    EXPECT_TRUE(Exists(data(c.substr(c.rfind('/') + 1)) + "/Documents/notes"));
    EXPECT_FALSE(Exists(c));
  }
  EXPECT_EQ(workspace.installs.size(), 1u);
  EXPECT_EQ(Tree(outside.path()), before);
}

TEST_F(HostileContainerTest, PlantedFilesAreNeverReadThroughALinkNorWaitedOn) {
  WriteFile(outside / "secret", "the machine's secret");
  const ContainerInfo l = app("L", false), f = app("F", false);
  MakeSymlink(outside / "secret", OldContainer("L/LyrandMetadata.plist"));
  const std::string fifo = OldContainer("F/LyrandMetadata.plist");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);

  EXPECT_TRUE(migrator->_migrateContainerWithInfo(l));
  ASSERT_FALSE(workspace.installs.empty());
  PlistDictionary options = workspace.installs[0].options;
  EXPECT_EQ(options.erase(MigrationOriginKey), 1u);
  EXPECT_EQ(options, PlaceholderOptions("com.L"))
      << "the link's target does not reach the placeholder";
  const std::string linked = OldContainer("L/LyrandMetadata.plist");
  EXPECT_TRUE(log.contains("VXAppMigrator: Failed to read " + linked + " : a symbolic link", 3));

  // Refused once, the container stays with its FIFO; the next attempt meets it again.
  workspace.installs.clear();
  workspace.outcomes.push_back({{}, false});
  EXPECT_FALSE(bounded([&] { return migrator->_migrateContainerWithInfo(f); }, fifo));
  EXPECT_TRUE(Exists(fifo));
  const auto resumed = migrator->_introspectContainer(Dir(OldContainer("F")), nullptr);
  ASSERT_TRUE(resumed);
  EXPECT_TRUE(bounded([&] { return migrator->_migrateContainerWithInfo(*resumed); }, fifo));
  EXPECT_EQ(log.count("VXAppMigrator: Failed to read " + fifo + " : not a regular file", 3), 2u);
  EXPECT_EQ(ReadFile(data("F") + "/Documents/notes"), "notes of F");

  // A bundle's information list as a link or a FIFO names no application.
  const std::string x = OldContainer("X/X.app");
  MakeDirs(x);
  MakeBundle(outside / "Loot.app", {.identifier = "com.loot"});
  MakeSymlink(outside / "Loot.app/Info.plist", x + "/Info.plist");
  MakeBundle(OldContainer("Y/Y.app"), {.identifier = "com.y"});
  fs::remove(OldContainer("Y/Y.app/Info.plist"));
  ASSERT_EQ(::mkfifo(OldContainer("Y/Y.app/Info.plist").c_str(), 0666), 0);
  EXPECT_FALSE(migrator->_bundleIdentifierForBundle(Dir(x)));
  const FileURL y = Dir(OldContainer("Y/Y.app"));
  EXPECT_FALSE(bounded([&] { return migrator->_bundleIdentifierForBundle(y).has_value(); },
                       y.path() + "/Info.plist"));
  EXPECT_EQ(ReadFile(outside / "secret"), "the machine's secret");
}

TEST_F(HostileContainerTest, WhatIsPlantedInTemporaryLocationsNeitherRedirectsNorBlocks) {
  // Where earlier versions built placeholders, and where a private directory is made now.
  const std::string name = "com.tarsel.velotrix.migrator";
  WriteFile(outside / (name + "/com.P.app/keep"), "someone else's");
  MakeDirs(DeviceTemporaryLocation());
  MakeSymlink(outside / name, DeviceTemporaryLocation() + "/" + name);
  TempDir shared;
  MakeSymlink(outside / name, shared / name);
  ScopedTmpdir tmpdir(shared.path());
  const auto before = Tree(outside.path());

  EXPECT_TRUE(migrator->_migrateContainerWithInfo(app("P", false)));
  ASSERT_EQ(workspace.installs.size(), 2u);
  const std::string built = workspace.installs[0].location.path();
  EXPECT_EQ(built.rfind(DeviceTemporaryLocation() + "/vxmigrator.", 0), 0u) << built;
  EXPECT_EQ(Tree(outside.path()), before);

  // The temporary location itself as a link is refused, not followed, also once the run has
  // made its private directory there.
  fs::remove_all(DeviceTemporaryLocation());
  MakeSymlink(outside.path(), DeviceTemporaryLocation());
  EXPECT_FALSE(migrator->_migrateContainerWithInfo(app("Q", false)));
  EXPECT_TRUE(log.contains("VXAppMigrator: Failed to create staged placeholder directory at " +
                               DeviceTemporaryLocation() + "/vxmigrator.XXXXXX : ",
                           3));
  EXPECT_TRUE(Exists(OldContainer("Q/Documents/notes")));
  EXPECT_EQ(Tree(outside.path()), before);
}

TEST_F(HostileContainerTest, OrdinaryUserMigratesItsDeviceAfterRootHasRun) {
  if (!RunningAsRoot()) GTEST_SKIP() << "becoming an ordinary user takes root";
  constexpr uid_t kUser = 65534;
  constexpr gid_t kGroup = 65534;
  // Root's run first, leaving what a root run leaves, also in the shared temporary directory
  // where earlier versions built placeholders.
  TempDir shared;
  MakeDirs(shared / "com.tarsel.velotrix.migrator/com.User.app");
  ScopedTmpdir tmpdir(shared.path());
  ASSERT_TRUE(migrator->_migrateContainerWithInfo(app("Rooted", false)));

  // The device is the user's; the temporary location root's run made stays root's.
  const ContainerInfo user = app("User", false);
  std::string root = TestDeviceRoot();
  root.pop_back();
  ASSERT_EQ(::lchown(root.c_str(), kUser, kGroup), 0);
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    if (it->path() == DeviceTemporaryLocation()) continue;
    ASSERT_EQ(::lchown(it->path().c_str(), kUser, kGroup), 0) << it->path();
  }
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(kGroup) != 0 || ::setuid(kUser) != 0) _exit(3);
    const bool migrated = migrator->_migrateContainerWithInfo(user);
    migrator.reset();  // the run's private directory goes with it
    _exit(migrated ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  EXPECT_EQ(ReadFile(data("User") + "/Documents/notes"), "notes of User");
  EXPECT_FALSE(Exists(OldContainer("User")));
  migrator.reset();
  EXPECT_TRUE(DirectoryEntries(DeviceTemporaryLocation()).empty());
}

// A device image cut off under one root and resumed under another: the markers name the
// device's own paths, so the second run finds its containers where they are now.
TEST(HostileDeviceTest, ImageCutOffUnderOneRootResumesUnderAnother) {
  const std::string host = std::string(VX_BIN_DIR) + "/vxmigrate";
  TempDir t;
  ASSERT_TRUE(test::WriteSmallDevice(t / "pristine", 1, 4096));
  const auto migrate = [&](const std::string& root, RunOptions run) {
    run.environment["TMPDIR"] = t.path();
    return RunProgram(host, {"migrate", "--root", root, "--no-progress", "--quiet"}, run);
  };
  const auto containers = [](const std::string& root) {
    std::vector<std::string> found;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(root + "/private/var/mobile/Applications", ec)) {
      found.push_back(e.path().string());
    }
    return found;
  };

  // Two cuts: just after the marker is written, and with the bundle staged.
  bool markedOnly = false, staged = false;
  for (int n = 1; n < 400 && !(markedOnly && staged); ++n) {
    const std::string first = t / "first", second = t / "second";
    fs::copy(t / "pristine", first, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    RunOptions cut;
    cut.environment["VX_FAULT_AT"] = std::to_string(n);
    cut.environment["VX_FAULT_ACTION"] = "crash";
    const RunResult crashed = migrate(first, cut);
    ASSERT_NE(crashed.err.find("vx fault seam:"), std::string::npos)
        << "the run ended before either cut: " << crashed.describe();
    bool marker = false, bundleStaged = false;
    for (const std::string& c : containers(first)) {
      marker = marker || Exists(c + kMarker);
      bundleStaged = bundleStaged || !DirectoryEntries(c + "/Staging/Payload").empty();
    }
    const bool wanted = (marker && !bundleStaged && !markedOnly) || (bundleStaged && !staged);
    if (wanted) {
      (bundleStaged ? staged : markedOnly) = true;
      fs::rename(first, second);
      const RunResult resumed = migrate(second, {});
      ASSERT_EQ(resumed.exitStatus, 0) << "cut at " << n << "\n" << resumed.describe();
      const sample::ManifestReport report = sample::CheckMigratedDevice(second);
      EXPECT_TRUE(report.ok() && report.applicationsInstalled == 1)
          << "cut at " << n << ": " << report.filesVerified << "/" << report.files;
      EXPECT_TRUE(containers(second).empty());
    }
    fs::remove_all(first);
    fs::remove_all(second);
  }
  EXPECT_TRUE(markedOnly && staged);
}

// A file named like the workspace's container record, forged or a sparse terabyte, planted in
// old group containers and old containers: no command aborts, every new container keeps its
// own record, and the planted files end in the recovery area.
TEST(HostileDeviceTest, PlantedWorkspaceRecordsNeverTravelNorAbortACommand) {
  const std::string host = std::string(VX_BIN_DIR) + "/vxmigrate";
  TempDir t;
  const std::string root = t / "device";
  ASSERT_TRUE(test::WriteSmallDevice(root, 6, 1024));
  const std::string forged =
      "<plist><dict><key>Identifier</key><string>group.forged</string>"
      "<key>ContainerClass</key><string>Group</string></dict></plist>";
  const auto plant = [&](const std::string& parent, size_t count) {
    std::vector<std::string> dirs;
    for (const auto& e : fs::directory_iterator(parent)) dirs.push_back(e.path());
    ASSERT_GE(dirs.size(), count) << parent;
    for (size_t i = 0; i < count; ++i) {
      const std::string record = dirs[i] + "/" + kContainerRecordFileName;
      if (i % 2 == 0) {
        WriteFile(record, forged);
      } else {
        WriteFile(record, "");
        ASSERT_EQ(::truncate(record.c_str(), off_t{1} << 40), 0);
      }
    }
  };
  plant(root + "/private/var/mobile/Containers/Shared/AppGroup", 2);
  plant(root + "/private/var/mobile/Applications", 2);
  RunOptions run;
  run.environment["TMPDIR"] = t.path();
  const auto command = [&](std::vector<std::string> args) {
    args.insert(args.begin() + 1, {"--root", root});
    return RunProgram(host, args, run);
  };
  EXPECT_EQ(command({"plan", "--json"}).exitStatus, 0);
  const RunResult migrated = command({"migrate", "--no-progress", "--quiet"});
  EXPECT_EQ(migrated.exitStatus, 0) << migrated.describe();
  EXPECT_TRUE(sample::CheckMigratedDevice(root).ok());

  const WorkspaceLayout layout(root);
  std::set<std::string> groups;
  const FileURL groupDir = layout.directoryForClass(ContainerClass::Group);
  for (const std::string& name : ContainerNames(groupDir.path())) {
    auto record = WorkspaceLayout::readRecord(groupDir.URLByAppendingPathComponent(name, true));
    ASSERT_TRUE(record) << name;
    groups.insert(record->identifier);
  }
  EXPECT_EQ(groups, (std::set<std::string>{"group.com.example.shared", "group.com.example.fathom"}));
  const RunResult recovered = command({"recover", "--json"});
  ASSERT_EQ(recovered.exitStatus, 0) << recovered.describe();
  EXPECT_EQ(nlohmann::json::parse(recovered.out).size(), 4u) << recovered.out;
  for (const auto& entry : nlohmann::json::parse(recovered.out)) {
    EXPECT_EQ(entry.at("course"), "ReservedName") << recovered.out;
  }

  // A record made huge in a new container later: that container is skipped, the rest listed.
  const FileURL dataDir = layout.directoryForClass(ContainerClass::Data);
  const std::string victim = dataDir.path() + "/" + ContainerNames(dataDir.path()).front() + "/" +
                             kContainerRecordFileName;
  ASSERT_EQ(::truncate(victim.c_str(), off_t{1} << 40), 0);
  for (const char* name : {"apps", "plan", "recover"}) {
    const RunResult listed = command({name, "--json"});
    EXPECT_EQ(listed.exitStatus, 0) << name << ": " << listed.describe();
  }
}

// The recovery area's entries of a device image: each entry's record and where its content is.
std::vector<std::pair<PlistDictionary, std::string>> RecoveredOn(const std::string& root) {
  std::vector<std::pair<PlistDictionary, std::string>> found;
  std::error_code ec;
  const std::string area = root + "/private/var/mobile/Library/Velotrix/Recovered";
  for (const auto& e : fs::directory_iterator(area, ec)) {
    if (auto record = ReadPropertyListDictionary(e.path().string() + "/Record.plist")) {
      found.emplace_back(std::move(*record), e.path().string() + "/Content");
    }
  }
  return found;
}

std::string Text(const PlistDictionary& record, const char* key) {
  auto it = record.find(key);
  return it != record.end() && it->second.string() ? *it->second.string() : std::string();
}

RunResult Migrate(const std::string& root, const TempDir& t, RunOptions run = {}) {
  run.environment["TMPDIR"] = t.path();
  return RunProgram(std::string(VX_BIN_DIR) + "/vxmigrate",
                    {"migrate", "--root", root, "--no-progress", "--quiet"}, run);
}

// Old containers claim identifiers that are not theirs: a plug-in another application's, a
// second container an identifier a first one brought, a container a built-in application's.
// Each installed bundle stays; every claimant's bytes land in the recovery area.
TEST(HostileDeviceTest, NoOldContainerTakesAnIdentifierAnotherHolds) {
  TempDir t;
  const std::string root = t / "device";
  // A plain application, one with a VPN plug-in, an older copy of a built-in one.
  ASSERT_TRUE(test::WriteSmallDevice(root, 3, 4096));
  const std::string oldRoot = root + "/private/var/mobile/Applications";
  std::string victim, builtIn;
  for (const auto& e : fs::directory_iterator(oldRoot)) {
    if (!e.is_directory()) continue;
    for (const auto& item : fs::directory_iterator(e.path())) {
      if (item.path().extension() != ".app") continue;
      const auto info = ReadPropertyListDictionary(item.path().string() + "/Info.plist");
      const std::string identifier = info ? Text(*info, "KBBundleIdentifier") : "";
      if (Exists(root + "/Applications/" + item.path().filename().string())) {
        builtIn = identifier;
      } else if (!Exists(e.path().string() + "/Tunnel.vpnplugin")) {
        victim = identifier;
      }
    }
  }
  ASSERT_FALSE(victim.empty() || builtIn.empty());
  MakeBundle(oldRoot + "/Evil/Evil.app", {.identifier = "com.evil"});
  MakeBundle(oldRoot + "/Evil/Evil.vpnplugin", {.identifier = victim, .executable = "evil"});
  MakeBundle(oldRoot + "/Twin/Twin.app", {.identifier = victim, .executable = "twin"});
  MakeBundle(oldRoot + "/Claim/Claim.app",
             {.identifier = builtIn, .version = "99.0", .executable = "claim"});

  const RunResult run = Migrate(root, t);
  EXPECT_EQ(run.exitStatus, 1) << run.describe();
  EXPECT_FALSE(Exists(oldRoot));
  const sample::ManifestReport report = sample::CheckMigratedDevice(root);
  EXPECT_TRUE(report.ok() && report.applicationsInstalled == 3)
      << report.filesVerified << "/" << report.files;

  DeviceWorkspace workspace(root);
  const auto victimProxy = workspace.existingBundleProxy(victim);
  ASSERT_TRUE(victimProxy && victimProxy->bundleURL);
  EXPECT_EQ(victimProxy->bundleType, "User") << "not a plug-in";
  const std::string installed = ReadFile(victimProxy->bundleURL->path() + "/App");
  EXPECT_EQ(workspace.existingBundleProxy(builtIn)->bundleType, "System");
  EXPECT_EQ(workspace.existingBundleProxy("com.evil")->bundleType, "User");

  // The executable each claimant's entry holds (its only bundle: Evil's application went in).
  std::map<std::string, std::string> taken;
  for (const auto& [record, content] : RecoveredOn(root)) {
    ASSERT_EQ(Text(record, "Course"), "IdentifierTaken") << Text(record, "OriginalPath");
    const std::string from = fs::path(Text(record, "OriginalPath")).filename();
    for (const auto& file : fs::recursive_directory_iterator(content)) {
      if (file.path().filename() == "App") taken[from] += ReadFile(file.path());
    }
  }
  EXPECT_EQ(taken["Evil"], "evil");
  EXPECT_EQ(taken["Claim"], "claim");
  // Of two containers of one identifier, whichever came first keeps it; the other's bundle
  // waits in the area.
  EXPECT_EQ(taken.size(), 3u);
  if (installed != "twin") {
    EXPECT_EQ(taken["Twin"], "twin");
  }
  const std::string log =
      ReadFile(root + "/private/var/mobile/Library/Logs/Transhift/migration.log");
  EXPECT_NE(log.find("its identifier " + victim + " does not extend com.evil"), std::string::npos);
  EXPECT_NE(log.find(builtIn + " is already installed as a built-in application"),
            std::string::npos);
  EXPECT_TRUE(Migrate(root, t).exitStatus == 0) << "the device has converged";
}

// A container the run dies at every time (a crash planted in its introspection) stops two
// runs; the third sets it aside whole, unread, and migrates every other application.
TEST(HostileDeviceTest, ContainerTwoRunsDiedAtIsSetAsideAndTheRestMigrates) {
  TempDir t;
  const std::string root = t / "device";
  ASSERT_TRUE(test::WriteSmallDevice(root, 3, 4096));
  const std::string oldRoot = root + "/private/var/mobile/Applications";
  std::string chosen;
  for (const auto& e : fs::directory_iterator(oldRoot)) {
    if (e.is_directory()) chosen = e.path().filename();
  }
  const auto before = Tree(oldRoot + "/" + chosen);
  RunOptions crashing;
  crashing.environment["VX_FAULT_ABORT_INTROSPECTING"] = chosen;

  for (int run = 0; run < 2; ++run) {
    const RunResult died = Migrate(root, t, crashing);
    ASSERT_EQ(died.signal, SIGABRT) << died.describe();
  }
  const RunResult third = Migrate(root, t, crashing);
  EXPECT_EQ(third.exitStatus, 1) << third.describe();
  EXPECT_FALSE(Exists(oldRoot));
  const auto recovered = RecoveredOn(root);
  ASSERT_EQ(recovered.size(), 1u);
  EXPECT_EQ(Text(recovered[0].first, "Course"), "CrashedTwice");
  EXPECT_EQ(Tree(recovered[0].second + "/" + chosen), before) << "whole, as it was";

  const sample::ManifestReport report = sample::CheckMigratedDevice(root);
  size_t whole = 0;
  for (const auto& app : report.perApplication) whole += app.files == app.filesVerified;
  EXPECT_EQ(whole, 2u);
  EXPECT_EQ(Migrate(root, t).exitStatus, 0) << "the device has converged";
  EXPECT_FALSE(Exists(root + "/private/var/mobile/Library/Velotrix/AppMigratorCrashes.plist"));
  EXPECT_FALSE(Exists(root + "/private/var/mobile/Library/Velotrix/AppMigratorCurrentItem"));
}

}  // namespace
}  // namespace vx
