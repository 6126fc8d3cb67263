// The installer settings and the preference store beneath them.
#include <gtest/gtest.h>

#include <thread>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/PlistFile.h"
#include "platform/PreferenceStore.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using test::TempDir;

std::string PreferencesOf(const TempDir& root) {
  return root.path() + "/private/var/mobile/Library/Preferences";
}

void WritePreferences(const TempDir& root, const std::string& domain, PlistDictionary values) {
  test::MakeDirs(PreferencesOf(root));
  ASSERT_TRUE(WritePropertyListFile(PreferencesOf(root) + "/" + domain + ".plist",
                                    PlistValue(std::move(values))));
}

// The settings' notices, checking on the way that each is written at level 5.
std::vector<std::string> InitLines(const test::LogCapture& log) {
  std::vector<std::string> lines;
  for (const LogRecord& record : log.records()) {
    if (record.function != "-[VXGlobalConfiguration init]") continue;
    EXPECT_EQ(record.level, 5) << record.message;
    lines.push_back(record.message);
  }
  return lines;
}

TEST(InstallerSettingsTest, DefaultsAndFixedValuesWithoutPreferences) {
  TempDir root;
  test::LogCapture log;
  VXGlobalConfiguration config(root.path());
  EXPECT_TRUE(config.lowerInstallPriority());
  EXPECT_FALSE(config.skipDeviceFamilyCheck() || config.skipThinningCheck());
  EXPECT_EQ(config.nSimultaneousInstallations(), 4);
  EXPECT_EQ(config.uid() + config.gid(), 1002u);
  EXPECT_TRUE(InitLines(log).empty());
  EXPECT_FALSE(config.haveUpdatedPluginContainersWithParentID());
  EXPECT_EQ(config.alternateThinningModelIdentifier(), std::nullopt);

  std::vector<std::string> names = config.appUserDataItemNames();
  names.pop_back();
  EXPECT_EQ(config.appUserDataItemNames(),
            (std::vector<std::string>{"Documents", "Library", "tmp", "Marvish"}));
  IdentifierSetRef blacklist = config.installationBlacklist();
  EXPECT_EQ(*blacklist, IdentifierSet{"com.tarsel.Orvik6Updater"});
  EXPECT_EQ(VXGlobalConfiguration(root.path()).installationBlacklist(), blacklist);
}

TEST(InstallerSettingsTest, OnlyStoredBooleansAndNumbersCount) {
  struct Case {
    PlistDictionary values;
    bool lower, family, thinning;
    int32_t simultaneous;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {{{"LowerInstallPriority", false}, {"SimultaneousInstallsNumber", 0}}, false, false, false, 0,
       {"Not running installation at background priority because of a set default",
        "Setting simultaneous installations allowed to 0"}},
      {{{"LowerInstallPriority", "NO"}, {"SkipThinningCheck", 1}, {"SkipDeviceFamilyCheck", "YES"},
        {"SimultaneousInstallsNumber", "8"}}, true, false, false, 4, {}},
      {{{"LowerInstallPriority", 0}, {"SkipDeviceFamilyCheck", true}, {"SkipThinningCheck", true},
        {"SimultaneousInstallsNumber", -7.9}}, true, true, true, -7,
       {"Skipping device family check because of a set default",
        "Skipping device thinning check because of a set default",
        "Setting simultaneous installations allowed to -7"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Describe(c.values));
    TempDir root;
    WritePreferences(root, "com.tarsel.velotrix", c.values);
    test::LogCapture log;
    VXGlobalConfiguration config(root.path());
    EXPECT_EQ(config.lowerInstallPriority(), c.lower);
    EXPECT_EQ(config.skipDeviceFamilyCheck(), c.family);
    EXPECT_EQ(config.skipThinningCheck(), c.thinning);
    EXPECT_EQ(config.nSimultaneousInstallations(), c.simultaneous);
    EXPECT_EQ(InitLines(log), c.lines);
  }
}

TEST(InstallerSettingsTest, PreferenceBackedValuesAreReadOnEveryCall) {
  TempDir root;
  VXGlobalConfiguration config(root.path());
  config.setHaveUpdatedPluginContainersWithParentID(true);
  EXPECT_TRUE(VXGlobalConfiguration(root.path()).haveUpdatedPluginContainersWithParentID());
  // Changed behind the object's back, as another process would: seen at once.
  WritePreferences(root, "com.tarsel.velotrix",
                   {{"UpdatedPluginContainersWithParentIDWithSafeHarborFix", false}});
  EXPECT_FALSE(config.haveUpdatedPluginContainersWithParentID());
  WritePreferences(root, "com.tarsel.velotrix",
                   {{"UpdatedPluginContainersWithParentIDWithSafeHarborFix", "no"}});
  EXPECT_TRUE(config.haveUpdatedPluginContainersWithParentID());

  WritePreferences(root, "com.tarsel.lyrandstored", {{"ThinnedAppVariantID", "Model7,2"}});
  EXPECT_EQ(config.alternateThinningModelIdentifier(), "Model7,2");
  WritePreferences(root, "com.tarsel.lyrandstored", {{"ThinnedAppVariantID", 7}});
  EXPECT_EQ(config.alternateThinningModelIdentifier(), std::nullopt);
}

TEST(InstallerSettingsTest, PreferenceStoreKeepsEveryConcurrentWrite) {
  TempDir root;
  const std::string directory = PreferencesOf(root);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int k = 0; k < 10; ++k) {
        PreferenceStore::setValue(std::to_string(t * 10 + k), PlistValue(k), "d", directory);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_TRUE(PreferenceStore::synchronize("d", directory));
  EXPECT_EQ(ReadPropertyListDictionary(directory + "/d.plist").value_or(PlistDictionary{}).size(), 40u);

  EXPECT_TRUE(PreferenceStore::setValue("13", std::nullopt, "d", directory));
  EXPECT_EQ(PreferenceStore::copyValue("13", "d", directory), std::nullopt);
  EXPECT_EQ(PreferenceStore::copyValue("23", "d", directory), PlistValue(3));
  EXPECT_FALSE(PreferenceStore::setValue("k", PlistValue(1), "../escape", directory));
}

}  // namespace
}  // namespace vx
