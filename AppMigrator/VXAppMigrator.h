// The application-migration plug-in: brings every application container of the old layout
// into the current layout, one container at a time, resumably. The plug-in makes no
// InstallerError of its own: it logs each failure where it arises, returns false or skips,
// and the run goes on with the next container.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/MigrationPlan.h"
#include "host/MigrationReport.h"
#include "host/MigratorPlugin.h"
#include "support/types/FileURL.h"
#include "support/types/PlistValue.h"

namespace vx {

class BundleHandle;

// The record of one old container: "ContainerPath", "BundlePath", "BundleIdentifier",
// "ContainerType" ("App" or "VPNBundle") and optionally "SecondBundlePath".
using ContainerInfo = PlistDictionary;

extern const char* const kContainerPathKey;        // "ContainerPath"
extern const char* const kBundlePathKey;           // "BundlePath"
extern const char* const kSecondBundlePathKey;     // "SecondBundlePath"
extern const char* const kBundleIdentifierKey;     // "BundleIdentifier"
extern const char* const kContainerTypeKey;        // "ContainerType"
extern const char* const kContainerTypeApp;        // "App"
extern const char* const kContainerTypeVPNBundle;  // "VPNBundle"
extern const char* const kMigrationMarkerName;  // "com.tarsel.velotrix.container_migrator.plist"
extern const char* const kStrayNoticeFileName;  // "WhereDidMyApplicationsGo.txt"
// The files of the migration's own making that a container may hold (its marker, an old
// placeholder's markings): they hold nothing of the user's.
const std::set<std::string>& ContainerBookkeepingNames();
// In a group's entry of the install map: the application whose migration could not move all
// of the group's items.
extern const char* const kGroupLeftoverOwnerKey;  // "MigratingIdentifier"

// The device's own name for a location under the device root: <root>/private/var/x is
// /private/var/x. Nothing for a location outside the root, which no device path can name.
std::optional<std::string> DevicePathOfLocation(const std::string& location);

// What introspection makes of an entry of the old root, beyond the record it returns.
enum class IntrospectionCourse {
  Record,         // a record for migration
  StrayFile,      // a file, not a container: removed
  Vanished,       // gone since the root was listed
  Unreadable,     // it, an entry in it or its marker could not be read: left
  NoBundle,       // no bundle with an identifier: removed, or its content kept aside
  SymlinkBundle,  // a bundle is a symbolic link: left
  Hostile,        // a marker that is a link or names another place: left
};

struct IntrospectionOutcome {
  IntrospectionCourse course = IntrospectionCourse::Record;
  bool fromMarker = false;  // the record is the marker's
  bool keptAside = false;   // NoBundle, StrayFile: its content went to the recovery area
};

class VXAppMigrator : public MigratorPlugin, public MigrationReporter, public MigrationPlanner {
 public:
  // Reads the old layout's state; nothing when the old container root exists but cannot
  // be listed.
  static std::unique_ptr<VXAppMigrator> create();
  // Reads the same state but will change nothing: for a plan. Such an object refuses to
  // perform a migration.
  static std::unique_ptr<VXAppMigrator> createForPlanning();

  ~VXAppMigrator() override;

  std::string dataClassName() const override;
  bool performMigration() override;
  float estimatedDuration() const override;
  float migrationProgress() const override;

  // --- Extensions the host may find -----------------------------------------------------
  std::vector<ContainerReport> containerReports() const override;
  void countDataItems(bool count) override { _countDataItems = count; }
  MigrationPlan planMigration() override;

  // --- Container introspection --------------------------------------------------------
  std::optional<ContainerInfo> _introspectContainer(const FileURL& container,
                                                    bool* orderResultEarly);
  // The same, telling what became (or, when planning, would become) of the entry.
  std::optional<ContainerInfo> _introspectContainer(const FileURL& container,
                                                    bool* orderResultEarly,
                                                    IntrospectionOutcome* outcome);
  // Without an identifier, `problem` (when given) says why the information list gave none.
  std::optional<std::string> _bundleIdentifierForBundle(const FileURL& bundle,
                                                        std::string* problem = nullptr);

  // --- Migration marker ---------------------------------------------------------------
  bool _writeMigrationMarker(const ContainerInfo& info);
  std::optional<ContainerInfo> _loadAndValidateMigrationMarkerAtURL(const FileURL& marker);
  // `misplaced`, when given, says whether a readable marker was refused because it names
  // another container, or bundles outside its own.
  std::optional<ContainerInfo> _loadAndValidateMigrationMarkerAtURL(const FileURL& marker,
                                                                    bool* misplaced);

  // --- Per-container migration --------------------------------------------------------
  bool _migrateContainerWithInfo(const ContainerInfo& info);

  // --- Re-installation and data moves -------------------------------------------------
  bool _stageAndInstallBundleAtURL(const FileURL& bundle, const std::string& identifier,
                                   const std::optional<FileURL>& vpnPlugin,
                                   const FileURL& container);
  bool _stageAndInstallPlaceholderForBundleAtURL(const FileURL& bundle,
                                                 const std::string& identifier,
                                                 const FileURL& container);
  bool _writeIconForBundle(const BundleHandle& bundle, const FileURL& destination);
  // Adds, to the options of an installation for the container being migrated, where its
  // bundle comes from: the workspace lets it replace nothing another container brought.
  void _addMigrationOrigin(PlistDictionary* options) const;
  // The private directory placeholders are built in, made on the run's first use and
  // checked before every later one; nothing (`error` set) when it cannot be had.
  std::optional<FileURL> _placeholderWorkDirectory(std::string* attempted, int* error);
  void _removePlaceholderWorkDirectory();
  bool _migrateDataContainerForIdentifier(const std::string& identifier, const FileURL& from,
                                          const FileURL& to);
  // `placeholderBundle`, when not empty, names an old placeholder bundle left in the container:
  // the system made it, and it is no missed item.
  bool _containerHasMissedItems(const FileURL& container, const std::string& identifier,
                                const std::string& placeholderBundle = std::string());
  bool _migrateGroupContainersForIdentifier(const std::string& identifier);
  // Moves one old group container's items into `destination`; its map entry goes once it is
  // empty.
  void _migrateGroupContainer(const std::string& group, const FileURL& destination,
                              const std::string& identifier);
  // Groups an earlier run could not finish, whose applications are installed by now. True
  // when none is left.
  bool _migrateLeftoverGroupContainers();
  // Writes the group map back into the old install map, so that it outlives the run.
  void _saveGroupContainerMap();
  // False only when the source cannot be listed; items that could not be moved are logged
  // and, when `unmovedCount` is given, counted there.
  bool _moveAllItemsInGroupContainerURL(const FileURL& source, const FileURL& destination,
                                        size_t* unmovedCount = nullptr);

  // The VPN plug-in of an application's container, when it may be installed with it: its
  // identifier must extend the application's. Nothing (and the refusal logged) otherwise.
  std::optional<FileURL> _vpnPluginToInstall(const FileURL& plugin, const std::string& identifier,
                                             const FileURL& container);

  // --- Safe harbors -------------------------------------------------------------------
  bool _migrateSafeHarbors();

  // --- Recovery -----------------------------------------------------------------------
  // Where the written course deletes `item`: moves it to the recovery area when it holds
  // user bytes, else removes it. False when it holds bytes and could not be moved; it then
  // stays where it is. `keptInRecovery`, when given, says whether it went to the area. When
  // planning, nothing moves and the answers are those the run would give.
  bool _setAsideItemAtURL(const FileURL& item, const std::string& identifier,
                          const char* course, bool* keptInRecovery = nullptr);
  // Sets aside (course "ReservedName") every item directly in `container` under a name the
  // workspace keeps for itself, so that no move carries one into a new container. False
  // when one has to stay.
  bool _setAsideReservedItemsInContainer(const FileURL& container, const std::string& identifier);
  // Writes the group container's record again when it is not the group's own.
  void _keepGroupRecord(const FileURL& container, const std::string& group,
                        const std::string& identifier);

  // An item of the old root at which two runs in a row died: set aside with course
  // "CrashedTwice" without being read, so that the run can go on. False when it holds user
  // bytes and could not be moved.
  bool _setAsideItemRunsDiedAt(const FileURL& item, const std::string& identifier);

  // Read-only views for the host's report and for tests.
  const std::optional<std::vector<FileURL>>& itemsToMigrate() const { return _itemsToMigrate; }
  uint64_t countItemsMigrated() const { return _countItemsMigrated.load(); }
  const std::optional<PlistDictionary>& groupContainerMap() const { return _groupContainerMap; }
  const std::optional<PlistDictionary>& harborMap() const { return _harborMap; }

 private:
  VXAppMigrator() = default;
  static std::unique_ptr<VXAppMigrator> _create(bool readOnly);
  // One planned entry of the old root that introspection described with `info`.
  void _planRecord(const ContainerInfo& info, PlannedEntry* entry);

  // Set for a plan: nothing on the device is changed.
  bool _readOnly = false;
  bool _countDataItems = false;
  struct PrivateDirectory {
    FileURL url;
    dev_t device = 0;
    ino_t inode = 0;
  };
  std::optional<PrivateDirectory> _placeholderDirectory;
  // The container being migrated, as installations record it (MigrationOriginKey); none
  // outside a container's migration.
  std::optional<PlistDictionary> _migrationOrigin;
  // Set when the last installation was refused because another container, or a built-in
  // application, holds the identifier.
  bool _identifierTaken = false;
  // The report of the item being handled, which the steps add what they moved to; none
  // outside a run (a step called on its own).
  ContainerReport* _currentReport();

  // One entry per item handled so far; `_current` indexes the item being handled.
  std::vector<ContainerReport> _reports;
  std::optional<size_t> _current;

  // Written by the run only; read by the host's progress queries from another thread.
  std::atomic<uint64_t> _countItemsMigrated{0};
  std::optional<std::vector<FileURL>> _itemsToMigrate;
  std::optional<PlistDictionary> _groupContainerMap;
  std::optional<PlistDictionary> _harborMap;
};

}  // namespace vx
