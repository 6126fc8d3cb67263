// What the plug-in's tests share: a fresh test device with the plug-in and a log capture, the
// old layout's paths, and the check of a migration-log record.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "AppMigrator/VXAppMigrator.h"
#include "platform/plist/PlistFile.h"
#include "support/AppPackages.h"
#include "support/FakeWorkspace.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"

namespace vx::test {

inline const std::string kMarker = "/com.tarsel.velotrix.container_migrator.plist";
inline const std::string kInstallMap =
    "private/var/mobile/Library/Caches/com.tarsel.velotrix.plist";

inline std::string OldContainer(const std::string& name) {
  return DevicePath("private/var/mobile/Applications/" + name);
}

inline FileURL Dir(const std::string& path) { return FileURL::fileURLWithPath(path, true); }

// The device's own name for a location on the test device, as the marker records it.
inline std::string OnDevice(const std::string& location) {
  return "/" + location.substr(TestDeviceRoot().size());
}

// Where the migration builds placeholders: the device's own temporary location.
inline std::string DeviceTemporaryLocation() { return DevicePath("private/var/tmp"); }

inline void WriteInstallMap(const PlistDictionary& map) {
  MakeDirs(DevicePath("private/var/mobile/Library/Caches"));
  ASSERT_TRUE(WritePropertyListFile(DevicePath(kInstallMap), PlistValue(map)));
}

// An install map whose "GroupContainers" names each group's old container by device path.
inline PlistDictionary GroupMap(const std::map<std::string, std::string>& containers) {
  PlistDictionary groups;
  for (const auto& [group, path] : containers) groups[group] = PlistDictionary{{"Container", path}};
  return {{"GroupContainers", groups}};
}

class MigratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetTestDevice();
    create();
  }
  void create() { ASSERT_TRUE(migrator = VXAppMigrator::create()); }

  // Exactly one record says "VXAppMigrator: `message`", and it came from the plug-in's
  // `operation` at `level`.
  ::testing::AssertionResult Logged(
      int level, const std::string& message,
      const std::string& operation = "-[VXAppMigrator performMigration]") const {
    const auto records = log.records();
    const auto same = [&](const LogRecord& r) { return r.message == "VXAppMigrator: " + message; };
    const auto n = std::count_if(records.begin(), records.end(), same);
    if (n != 1) return ::testing::AssertionFailure() << n << " records of \"" << message << "\"";
    const LogRecord& r = *std::find_if(records.begin(), records.end(), same);
    if (r.log != LogKind::Migration || r.level != level || r.function != operation ||
        r.file != "AppMigrator/AppMigrator" || r.category != "Transhifter" || !r.line) {
      return ::testing::AssertionFailure()
             << "\"" << message << "\" at level " << r.level << " from " << r.function;
    }
    return ::testing::AssertionSuccess();
  }

  std::unique_ptr<VXAppMigrator> migrator;
  LogCapture log;
};

// A migrator over old application containers, with a workspace that knows their applications.
class AppContainerTest : public MigratorTest {
 protected:
  // A container with its bundle and notes, the application given a data container; `known`
  // makes it installed already. Returns its record as introspection gives it.
  ContainerInfo app(const std::string& name, bool known = true) {
    const std::string dir = OldContainer(name);
    MakeBundle(dir + "/" + name + ".app", {.identifier = "com." + name});
    WriteFile(dir + "/Documents/notes", "notes of " + name);
    if (known) workspace.installed.insert("com." + name);
    workspace.addApplication("com." + name, data(name));
    return {{"ContainerPath", dir}, {"BundlePath", dir + "/" + name + ".app"},
            {"ContainerType", "App"}, {"BundleIdentifier", "com." + name}};
  }
  std::string data(const std::string& name) { return DevicePath("data/" + name); }

  FakeWorkspace workspace;
};

// Points TMPDIR elsewhere while it lives; restored even when an assertion ends the test early.
class ScopedTmpdir {
 public:
  explicit ScopedTmpdir(const std::string& path) {
    if (const char* old = std::getenv("TMPDIR")) saved_ = old;
    ::setenv("TMPDIR", path.c_str(), 1);
  }
  ~ScopedTmpdir() { saved_ ? ::setenv("TMPDIR", saved_->c_str(), 1) : ::unsetenv("TMPDIR"); }

 private:
  std::optional<std::string> saved_;
};

}  // namespace vx::test
