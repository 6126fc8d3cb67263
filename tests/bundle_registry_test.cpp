#include <gtest/gtest.h>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "support/AppPackages.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/VerboseLog.h"

namespace vx {
namespace {

std::set<std::string> Keys(const BundleMapRef& map) {
  std::set<std::string> keys;
  for (const auto& entry : map ? *map : BundleMap{}) keys.insert(entry.first);
  return keys;
}

TEST(BundleRegistryTest, ScansReadRealBundlesOfTheExactExtensionAndLastUntilTheirRescan) {
  test::TempDir root;
  VXGlobalConfiguration config(root.path());
  const std::string dir = root / "scan";
  test::MakeBundle(dir + "/A.app", {"com.example.a"});
  test::MakeBundle(dir + "/B.APP", {"com.example.b"});
  test::MakeBundle(dir + "/C.framework", {"com.example.c"});
  test::MakeSymlink(test::MakeBundle(root / "elsewhere/D.app", {"com.example.d"}), dir + "/D.app");
  test::WriteFile(dir + "/E.app/Info.plist",
                  "<plist><dict><key>KBBundleIdentifier</key><integer>42</integer></dict></plist>");
  test::MakeDirs(dir + "/NoInfo.app");
  test::MakeBundle(dir + "/F.app", {"com.example.dup"});
  test::MakeBundle(dir + "/G.app", {"com.example.dup"});

  test::LogCapture log;
  test::VerboseLog verbose;
  const FileURL dirURL = FileURL::fileURLWithPath(dir, true);
  BundleMapRef apps = config._bundleIDMapForAppsInDirectory(dirURL);
  EXPECT_EQ(Keys(apps), (std::set<std::string>{"com.example.a", "com.example.dup"}));
  EXPECT_EQ(log.count("Failed to get KBBundleIdentifier from bundle " + dir + "/E.app", 7), 1u);
  EXPECT_EQ(log.count("Failed to load Info.plist from bundle " + dir + "/NoInfo.app", 7), 1u);

  const BundleInfoRecord& a = apps->at("com.example.a");
  EXPECT_EQ(*a.at("KBBundleVersion").string(), "1.0");
  EXPECT_FALSE(a.count("KBBundleExecutable"));
  EXPECT_EQ(*a.at(kVXBundleURLKey).url(), FileURL::fileURLWithPath(dir + "/A.app", true));

  // The later of two bundles with one identifier wins, in the directory's own order.
  auto listing =
      VXFileManager::defaultManager().urlsForItemsInDirectoryAtURL(dirURL, true, nullptr);
  ASSERT_TRUE(listing);
  FileURL later;
  for (const FileURL& entry : *listing) {
    if (entry.lastPathComponent() == "F.app" || entry.lastPathComponent() == "G.app") later = entry;
  }
  EXPECT_EQ(*apps->at("com.example.dup").at(kVXBundleURLKey).url(), later);

  log.clear();
  // A missing directory is silent; anything else that stops the listing is logged.
  EXPECT_FALSE(config._bundleIDMapForAppsInDirectory(FileURL::fileURLWithPath(root / "none")));
  EXPECT_TRUE(log.messages(3).empty());
  const FileURL notADirectory = FileURL::fileURLWithPath(dir + "/A.app/Info.plist");
  EXPECT_FALSE(config._bundleIDMapForAppsInDirectory(notADirectory));
  EXPECT_EQ(log.count("Failed to search for apps in " + dir + "/A.app/Info.plist : ", 3), 1u);

  // The maps of the device's own directories are kept until their rescan; a missing directory
  // is not kept, so it is looked for again at every call.
  log.clear();
  EXPECT_FALSE(config.internalAppBundleIDToInfoMap());
  EXPECT_TRUE(log.records().empty());
  test::MakeBundle(root / "TarselInternal/Applications/I.app", {"com.example.internal"});
  EXPECT_EQ(Keys(config.internalAppBundleIDToInfoMap()),
            std::set<std::string>{"com.example.internal"});

  test::MakeBundle(root / "Applications/S.app", {"com.example.system"});
  test::MakeBundle(root / "System/Library/CoreServices/K.app", {"com.example.core"});
  test::MakeBundle(root / "System/Library/Frameworks/F.framework", {"com.example.f"});
  BundleMapRef system = config.systemAppBundleIDToInfoMap();
  BundleMapRef core = config.coreServicesAppBundleIDToInfoMap();
  IdentifierSetRef frameworks = config.builtInFrameworkBundleIDs();
  EXPECT_EQ(*frameworks, IdentifierSet{"com.example.f"});

  test::MakeBundle(root / "Applications/T.app", {"com.example.system2"});
  test::MakeBundle(root / "System/Library/CoreServices/L.app", {"com.example.core2"});
  test::MakeBundle(root / "TarselInternal/PrivateFrameworks/G.framework", {"com.example.g"});
  config.reScanCoreServicesApps();
  EXPECT_EQ(Keys(config.coreServicesAppBundleIDToInfoMap()).size(), 2u);
  EXPECT_EQ(config.systemAppBundleIDToInfoMap(), system);
  EXPECT_EQ(config.builtInFrameworkBundleIDs(), frameworks);

  config.reScanInternalApps();
  EXPECT_EQ(config.builtInFrameworkBundleIDs()->size(), 2u);
  EXPECT_EQ(config.systemAppBundleIDToInfoMap(), system);

  test::MakeBundle(root / "System/Library/PrivateFrameworks/H.framework", {"com.example.h"});
  config.reScanSystemApps();
  EXPECT_EQ(Keys(config.systemAppBundleIDToInfoMap()).size(), 2u);
  EXPECT_EQ(config.builtInFrameworkBundleIDs()->size(), 3u);
  EXPECT_EQ(Keys(core).size(), 1u);  // handed-out values stay as they were
}

}  // namespace
}  // namespace vx
