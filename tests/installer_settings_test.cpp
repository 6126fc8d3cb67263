// The installer settings and the preference store beneath them.
#include <gtest/gtest.h>

#include <thread>

#include "configuration/VXGlobalConfiguration.h"
#include "platform/plist/PlistFile.h"
#include "platform/preferences/PreferenceStore.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using test::TempDir;

void WritePreferences(const TempDir& root, const std::string& domain, PlistDictionary values) {
  const std::string directory = root / "private/var/mobile/Library/Preferences";
  test::MakeDirs(directory);
  ASSERT_TRUE(WritePropertyListFile(directory + "/" + domain + ".plist", PlistValue(values)));
}

TEST(InstallerSettingsTest, OnlyStoredBooleansAndNumbersCount) {
  struct Case {
    PlistDictionary values;  // none: no preferences at all
    bool lower, family, thinning; int32_t simultaneous;
    std::vector<std::string> lines;  // the notices, each at level 5
  };
  const Case cases[] = {
      {{}, true, false, false, 4, {}},
      {{{"LowerInstallPriority", false}, {"SimultaneousInstallsNumber", 0}}, false, false, false, 0,
       {"Not running installation at background priority because of a set default",
        "Setting simultaneous installations allowed to 0"}},
      {{{"LowerInstallPriority", "NO"}, {"SkipThinningCheck", 1}, {"SkipDeviceFamilyCheck", "YES"},
        {"SimultaneousInstallsNumber", "8"}}, true, false, false, 4, {}},
      // A boolean is no count, however much `true` looks like 1.
      {{{"SimultaneousInstallsNumber", true}}, true, false, false, 4, {}},
      {{{"LowerInstallPriority", 0}, {"SkipDeviceFamilyCheck", true}, {"SkipThinningCheck", true},
        {"SimultaneousInstallsNumber", -7.9}}, true, true, true, -7,
       {"Skipping device family check because of a set default",
        "Skipping device thinning check because of a set default",
        "Setting simultaneous installations allowed to -7"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Describe(c.values));
    TempDir root;
    if (!c.values.empty()) WritePreferences(root, "com.tarsel.velotrix", c.values);
    test::LogCapture log;
    VXGlobalConfiguration config(root.path());
    EXPECT_EQ(std::tuple(config.lowerInstallPriority(), config.skipDeviceFamilyCheck(),
                         config.skipThinningCheck(), config.nSimultaneousInstallations()),
              std::tuple(c.lower, c.family, c.thinning, c.simultaneous));
    EXPECT_EQ(log.messages(5), c.lines);
  }
}

TEST(InstallerSettingsTest, FixedValuesAndPreferencesReadOnEveryCall) {
  TempDir root;
  VXGlobalConfiguration config(root.path());
  EXPECT_EQ(config.uid() + config.gid(), 1002u);
  EXPECT_EQ(config.appUserDataItemNames(),
            (std::vector<std::string>{"Documents", "Library", "tmp", "Marvish"}));
  IdentifierSetRef blacklist = config.installationBlacklist();
  EXPECT_EQ(*blacklist, IdentifierSet{"com.tarsel.Orvik6Updater"});
  EXPECT_EQ(VXGlobalConfiguration(root.path()).installationBlacklist(), blacklist);

  EXPECT_FALSE(config.haveUpdatedPluginContainersWithParentID());
  config.setHaveUpdatedPluginContainersWithParentID(true);
  EXPECT_TRUE(VXGlobalConfiguration(root.path()).haveUpdatedPluginContainersWithParentID());
  // Changed behind the object's back, as another process would: seen at once.
  const std::string key = "UpdatedPluginContainersWithParentIDWithSafeHarborFix";
  WritePreferences(root, "com.tarsel.velotrix", {{key, false}});
  EXPECT_FALSE(config.haveUpdatedPluginContainersWithParentID());
  WritePreferences(root, "com.tarsel.velotrix", {{key, "no"}});
  EXPECT_TRUE(config.haveUpdatedPluginContainersWithParentID());

  EXPECT_EQ(config.alternateThinningModelIdentifier(), std::nullopt);
  WritePreferences(root, "com.tarsel.lyrandstored", {{"ThinnedAppVariantID", "Model7,2"}});
  EXPECT_EQ(config.alternateThinningModelIdentifier(), "Model7,2");
  WritePreferences(root, "com.tarsel.lyrandstored", {{"ThinnedAppVariantID", 7}});
  EXPECT_EQ(config.alternateThinningModelIdentifier(), std::nullopt);
}

TEST(InstallerSettingsTest, PreferenceStoreKeepsEveryConcurrentWrite) {
  using namespace PreferenceStore;
  TempDir root;
  const std::string& dir = root.path();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int k = 0; k < 10; ++k) setValue(std::to_string(t * 10 + k), k, "d", dir);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_TRUE(synchronize("d", dir));
  EXPECT_EQ(ReadPropertyListDictionary(dir + "/d.plist").value_or(PlistDictionary{}).size(), 40u);

  EXPECT_TRUE(setValue("13", std::nullopt, "d", dir));
  EXPECT_EQ(copyValue("13", "d", dir), std::nullopt);
  EXPECT_EQ(copyValue("23", "d", dir), PlistValue(3));
  EXPECT_FALSE(setValue("k", PlistValue(1), "../escape", dir));
}

}  // namespace
}  // namespace vx
