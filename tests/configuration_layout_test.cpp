// Where the configuration object puts things, and how it makes, remakes and reports the
// directories the installer writes into.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <latch>
#include <thread>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"

namespace vx {
namespace {

using test::Exists;
using test::TempDir;

int32_t ProtectionClassOf(const FileURL& url) {
  int32_t protectionClass = -1;
  EXPECT_TRUE(VXFileManager::defaultManager().dataProtectionClassOfItemAtURL(
      url, &protectionClass, nullptr)) << url.path();
  return protectionClass;
}

TEST(DirectoryLayoutTest, LocationsLieUnderTheRootWithTheirKinds) {
  TempDir root;
  VXGlobalConfiguration c(root.path());
  const std::string r = root.path();
  // The text's trailing slash tells a directory location from a file location.
  const std::pair<FileURL, std::string> expected[] = {
      {c.homeDirectory(), "/private/var/mobile/"},
      {c.oldContainerPath(), "/private/var/mobile/Applications/"},
      {c.oldInstallMapPath(), "/private/var/mobile/Library/Caches/com.tarsel.velotrix.plist"},
      {c.coreServicesDirectory(), "/System/Library/CoreServices/"},
      {c.internalAppsDirectory(), "/TarselInternal/Applications/"},
      {c.factoryMountDirectory(), "/private/var/factory_mount/"},
  };
  for (const auto& [url, relative] : expected) EXPECT_EQ(url.absoluteString(), r + relative);

  auto dir = [&](const std::string& relative) { return FileURL::fileURLWithPath(r + relative, true); };
  LocationSetRef frameworks = c.allFrameworksDirectories();
  EXPECT_EQ(*frameworks, (std::set<FileURL>{dir("/System/Library/Frameworks"),
                                            dir("/System/Library/PrivateFrameworks"),
                                            dir("/TarselInternal/Frameworks"),
                                            dir("/TarselInternal/PrivateFrameworks")}));
  EXPECT_EQ(c.allFrameworksDirectories(), frameworks);
  EXPECT_FALSE(Exists(r + "/System"));  // read-only locations are computed, never made

  EXPECT_EQ(VXGlobalConfiguration("/").homeDirectory().absoluteString(), "/private/var/mobile/");
  VXGlobalConfiguration& shared = VXGlobalConfiguration::sharedInstance();
  EXPECT_EQ(&shared, &VXGlobalConfiguration::sharedInstance());
  EXPECT_EQ(shared.homeDirectory().absoluteString(), test::TestDeviceRoot() + "private/var/mobile/");
}

TEST(DirectoryLayoutTest, ConcurrentFirstCallsMakeOneProtectedDirectory) {
  const mode_t savedMask = ::umask(022);  // the mode asked for is filtered by the mask
  TempDir root;
  VXGlobalConfiguration config(root.path());
  constexpr int kThreads = 8;
  std::vector<FileURL> seen(kThreads);
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      seen[i] = config.dataDirectory();
    });
  }
  for (std::thread& t : threads) t.join();
  ::umask(savedMask);

  for (const FileURL& url : seen) EXPECT_EQ(url, seen[0]);
  EXPECT_EQ(seen[0].absoluteString(), root.path() + "/private/var/mobile/Library/Velotrix/");
  struct stat st {};
  ASSERT_EQ(::stat(seen[0].path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, S_IFDIR | 0755u);
  EXPECT_EQ(ProtectionClassOf(seen[0]), 4);

  // The staging root's parent is made first and keeps the default class.
  const FileURL staging = config.stagingRoot();
  EXPECT_EQ(staging, config.cachesDirectory().URLByAppendingPathComponent(
                         "com.tarsel.mobile.velotrixd.staging", true));
  EXPECT_EQ(ProtectionClassOf(config.cachesDirectory()), 0);
  EXPECT_EQ(ProtectionClassOf(staging), 4);
}

TEST(DirectoryLayoutTest, DirectoriesAreMadeOnEveryCallAndFailuresOnlyLogged) {
  TempDir root;
  VXGlobalConfiguration config(root.path());
  for (auto accessor :
       {&VXGlobalConfiguration::carrierBundlesDirectory, &VXGlobalConfiguration::stagingRoot,
        &VXGlobalConfiguration::logDirectory, &VXGlobalConfiguration::archiveDirectory}) {
    const FileURL first = (config.*accessor)();
    std::filesystem::remove_all(first.path());
    EXPECT_EQ((config.*accessor)(), first);
    EXPECT_TRUE(Exists(first.path())) << first.path();
  }

  const std::string library = root.path() + "/private/var/mobile/Library";
  std::filesystem::remove_all(library);
  test::WriteFile(library, "in the way");
  test::LogCapture log;
  EXPECT_EQ(config.dataDirectory().path(), library + "/Velotrix");
  config.cachesDirectory();
  config.stagingRoot();
  auto logged = [&](const std::string& op, const std::string& prefix) {
    for (const LogRecord& record : log.records()) {
      if (record.level == 3 && record.function == "-[VXGlobalConfiguration " + op + "]" &&
          record.message.rfind(prefix, 0) == 0 && record.message.size() > prefix.size())
        return true;
    }
    return false;
  };
  EXPECT_TRUE(logged("dataDirectory", "Failed to create data dir at \"" + library + "/Velotrix\": "));
  EXPECT_TRUE(logged("cachesDirectory",
                     "Failed to create caches directory at \"" + library + "/Caches\": "));
  EXPECT_TRUE(logged("stagingRoot", "Failed to create staging root at \"" + library +
                                        "/Caches/com.tarsel.mobile.velotrixd.staging\": "));

  std::filesystem::remove(library);
  log.clear();
  EXPECT_TRUE(Exists(config.dataDirectory().path()));
  EXPECT_TRUE(log.messages(3).empty());
}

}  // namespace
}  // namespace vx
