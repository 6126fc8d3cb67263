#include <gtest/gtest.h>

#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/PlistFile.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/VerboseLog.h"

namespace vx {
namespace {

void MakeBundle(const std::string& path, const PlistValue& identifier) {
  test::MakeDirs(path);
  PlistDictionary info{{"KBBundleIdentifier", identifier}, {"KBBundleVersion", PlistValue("1.0")},
                       {"KBBundleExecutable", PlistValue("Run")}};
  ASSERT_TRUE(WritePropertyListFile(path + "/Info.plist", PlistValue(info)));
}

std::set<std::string> Keys(const BundleMapRef& map) {
  std::set<std::string> keys;
  if (map) {
    for (const auto& entry : *map) keys.insert(entry.first);
  }
  return keys;
}

TEST(BundleRegistryTest, ScanReadsRealBundlesOfTheExactExtension) {
  test::TempDir root;
  VXGlobalConfiguration config(root.path());
  const std::string dir = root / "scan";
  MakeBundle(dir + "/A.app", PlistValue("com.example.a"));
  MakeBundle(dir + "/B.APP", PlistValue("com.example.b"));
  MakeBundle(dir + "/C.framework", PlistValue("com.example.c"));
  MakeBundle(root / "elsewhere/D.app", PlistValue("com.example.d"));
  test::MakeSymlink(root / "elsewhere/D.app", dir + "/D.app");
  MakeBundle(dir + "/E.app", PlistValue(42));
  test::MakeDirs(dir + "/NoInfo.app");
  MakeBundle(dir + "/F.app", PlistValue("com.example.dup"));
  MakeBundle(dir + "/G.app", PlistValue("com.example.dup"));

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
}

TEST(BundleRegistryTest, CachedMapsLastUntilTheirRescan) {
  test::TempDir root;
  VXGlobalConfiguration config(root.path());
  test::LogCapture log;

  // A missing directory is not cached, so it is looked for again at every call.
  EXPECT_FALSE(config.internalAppBundleIDToInfoMap());
  EXPECT_TRUE(log.records().empty());
  MakeBundle(root / "TarselInternal/Applications/I.app", PlistValue("com.example.internal"));
  EXPECT_EQ(Keys(config.internalAppBundleIDToInfoMap()),
            std::set<std::string>{"com.example.internal"});

  MakeBundle(root / "Applications/S.app", PlistValue("com.example.system"));
  MakeBundle(root / "System/Library/CoreServices/K.app", PlistValue("com.example.core"));
  MakeBundle(root / "System/Library/Frameworks/F.framework", PlistValue("com.example.f"));
  BundleMapRef system = config.systemAppBundleIDToInfoMap();
  BundleMapRef core = config.coreServicesAppBundleIDToInfoMap();
  IdentifierSetRef frameworks = config.builtInFrameworkBundleIDs();
  EXPECT_EQ(*frameworks, IdentifierSet{"com.example.f"});

  MakeBundle(root / "Applications/T.app", PlistValue("com.example.system2"));
  MakeBundle(root / "System/Library/CoreServices/L.app", PlistValue("com.example.core2"));
  MakeBundle(root / "TarselInternal/PrivateFrameworks/G.framework", PlistValue("com.example.g"));
  EXPECT_EQ(config.systemAppBundleIDToInfoMap(), system);
  EXPECT_EQ(config.builtInFrameworkBundleIDs(), frameworks);

  config.reScanCoreServicesApps();
  EXPECT_EQ(Keys(config.coreServicesAppBundleIDToInfoMap()).size(), 2u);
  EXPECT_EQ(config.systemAppBundleIDToInfoMap(), system);
  EXPECT_EQ(config.builtInFrameworkBundleIDs(), frameworks);

  config.reScanInternalApps();
  EXPECT_EQ(config.builtInFrameworkBundleIDs()->size(), 2u);
  EXPECT_EQ(config.systemAppBundleIDToInfoMap(), system);

  MakeBundle(root / "System/Library/PrivateFrameworks/H.framework", PlistValue("com.example.h"));
  config.reScanSystemApps();
  EXPECT_EQ(Keys(config.systemAppBundleIDToInfoMap()).size(), 2u);
  EXPECT_EQ(config.builtInFrameworkBundleIDs()->size(), 3u);
  EXPECT_EQ(Keys(core).size(), 1u);  // handed-out values stay as they were
}

}  // namespace
}  // namespace vx
