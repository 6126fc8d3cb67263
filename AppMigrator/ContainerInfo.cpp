#include "AppMigrator/VXAppMigrator.h"

namespace vx {

const char* const kContainerPathKey = "ContainerPath";
const char* const kBundlePathKey = "BundlePath";
const char* const kSecondBundlePathKey = "SecondBundlePath";
const char* const kBundleIdentifierKey = "BundleIdentifier";
const char* const kContainerTypeKey = "ContainerType";
const char* const kContainerTypeApp = "App";
const char* const kContainerTypeVPNBundle = "VPNBundle";
const char* const kMigrationMarkerName = "com.tarsel.velotrix.container_migrator.plist";
const char* const kStrayNoticeFileName = "WhereDidMyApplicationsGo.txt";
const char* const kGroupLeftoverOwnerKey = "MigratingIdentifier";

const std::set<std::string>& ContainerBookkeepingNames() {
  static const std::set<std::string> names{kMigrationMarkerName,
                                           "com.tarsel.velotrix.migration_marker",
                                           "com.tarsel.velotrix.placeholder"};
  return names;
}

}  // namespace vx
