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

int32_t ProtectionClassOf(const FileURL& url) {
  int32_t protectionClass = -1;
  EXPECT_TRUE(VXFileManager::defaultManager().dataProtectionClassOfItemAtURL(
      url, &protectionClass, nullptr)) << url.path();
  return protectionClass;
}

TEST(DirectoryLayoutTest, LocationsLieUnderTheRootWithTheirKinds) {
  test::TempDir root;
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

  std::set<std::string> frameworks;
  for (const FileURL& url : *c.allFrameworksDirectories()) frameworks.insert(url.absoluteString());
  EXPECT_EQ(frameworks, (std::set<std::string>{r + "/System/Library/Frameworks/",
                                               r + "/System/Library/PrivateFrameworks/",
                                               r + "/TarselInternal/Frameworks/",
                                               r + "/TarselInternal/PrivateFrameworks/"}));
  EXPECT_EQ(c.allFrameworksDirectories(), c.allFrameworksDirectories());  // made once
  EXPECT_FALSE(Exists(r + "/System"));  // read-only locations are computed, never made

  EXPECT_EQ(VXGlobalConfiguration("/").homeDirectory().absoluteString(), "/private/var/mobile/");
  EXPECT_EQ(&VXGlobalConfiguration::sharedInstance(), &VXGlobalConfiguration::sharedInstance());
  EXPECT_EQ(VXGlobalConfiguration::sharedInstance().homeDirectory().absoluteString(),
            test::TestDeviceRoot() + "private/var/mobile/");
}

TEST(DirectoryLayoutTest, DirectoriesAreMadeProtectedAtEveryCallOrLogged) {
  const mode_t savedMask = ::umask(022);  // the mode asked for is filtered by the mask
  test::TempDir root;
  VXGlobalConfiguration config(root.path());
  std::vector<FileURL> seen(8);
  std::latch start(8);
  std::vector<std::thread> threads;
  for (FileURL& url : seen) {
    threads.emplace_back([&] { start.arrive_and_wait(), url = config.dataDirectory(); });
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
  EXPECT_EQ(ProtectionClassOf(config.stagingRoot()), 4);
  EXPECT_EQ(ProtectionClassOf(config.cachesDirectory()), 0);

  // Made again at every call when gone; when they cannot be made, only logged.
  for (auto accessor :
       {&VXGlobalConfiguration::carrierBundlesDirectory, &VXGlobalConfiguration::stagingRoot,
        &VXGlobalConfiguration::logDirectory, &VXGlobalConfiguration::archiveDirectory}) {
    const FileURL first = (config.*accessor)();
    std::filesystem::remove_all(first.path());
    EXPECT_EQ((config.*accessor)(), first);
    EXPECT_TRUE(Exists(first.path())) << first.path();
  }

  // A file where the library should be: each location is still given, and the failure logged
  // with its reason.
  const std::string library = root.path() + "/private/var/mobile/Library";
  std::filesystem::remove_all(library);
  test::WriteFile(library, "in the way");
  test::LogCapture log;
  EXPECT_EQ(config.dataDirectory().path(), library + "/Velotrix");
  config.cachesDirectory();
  config.stagingRoot();
  const std::string failed = "Failed to create ";
  const std::string why = "\": Error Domain=POSIXErrorDomain Code=20 ";
  const std::vector<std::string> failures = log.messages(3);
  ASSERT_EQ(failures.size(), 3u);
  EXPECT_TRUE(failures[0].starts_with(failed + "data dir at \"" + library + "/Velotrix" + why));
  EXPECT_TRUE(
      failures[1].starts_with(failed + "caches directory at \"" + library + "/Caches" + why));
  EXPECT_TRUE(failures[2].starts_with(failed + "staging root at \"" + library +
                                      "/Caches/com.tarsel.mobile.velotrixd.staging" + why));

  std::filesystem::remove(library);
  log.clear();
  EXPECT_TRUE(Exists(config.dataDirectory().path()));
  EXPECT_TRUE(log.messages(3).empty());
}

}  // namespace
}  // namespace vx
