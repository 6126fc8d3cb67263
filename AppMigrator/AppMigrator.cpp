#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <deque>
#include <utility>

#include "AppMigrator/FailureCapture.h"
#include "AppMigrator/RunAttempts.h"
#include "AppMigrator/VXAppMigrator.h"
#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/installer/InstallerService.h"
#include "platform/log/MigrationLog.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"
#include "platform/system/SystemVersion.h"
#include "platform/workspace/AppWorkspace.h"

namespace vx {
namespace {

constexpr const char* kInitOperation = "-[VXAppMigrator init]";
constexpr const char* kRunOperation = "-[VXAppMigrator performMigration]";

constexpr const char* kGroupContainersKey = "GroupContainers";
constexpr const char* kHarborMapFileName = "SafeHarbor.plist";
constexpr const char* kLastSystemVersionFileName = "AppMigratorLastSystemVersion.plist";

constexpr float kBaseDuration = 20.0f;
constexpr float kDurationPerItem = 2.25f;
// What the host is told while there is no list to measure against.
constexpr float kProgressWithoutItems = 0.5f;

const PlistValue* Entry(const ContainerInfo& info, const char* key) {
  auto it = info.find(key);
  return it == info.end() ? nullptr : &it->second;
}

// The install map's "GroupContainers", the only part of it the migration needs.
std::optional<PlistDictionary> ReadGroupContainerMap(const FileURL& installMapPath) {
  const auto installMap = ReadPropertyListDictionary(installMapPath.path());
  if (!installMap) {
    VX_MIGRATION_LOG(5, kInitOperation, "VXAppMigrator: Old install map not found at %@",
                     installMapPath.path());
  } else if (auto groups = installMap->find(kGroupContainersKey);
             groups != installMap->end() && groups->second.isDictionary()) {
    return *groups->second.dictionary();
  }
  VX_MIGRATION_LOG(5, kInitOperation,
                   "VXAppMigrator: No group container map found in install map");
  return std::nullopt;
}

// Group containers an earlier run could not empty, recorded in what it kept of the install
// map; nothing when there are none, so that a device without leftovers runs as it always did.
std::optional<PlistDictionary> ReadGroupLeftovers(const FileURL& installMapPath) {
  const auto installMap = ReadPropertyListDictionary(installMapPath.path());
  if (!installMap) return std::nullopt;
  auto groups = installMap->find(kGroupContainersKey);
  if (groups == installMap->end() || !groups->second.isDictionary()) return std::nullopt;
  for (const auto& [group, entry] : *groups->second.dictionary()) {
    if (entry.stringForKey(kGroupLeftoverOwnerKey)) return *groups->second.dictionary();
  }
  return std::nullopt;
}

// The old install map outlives the old root for as long as a group container it names still
// holds items: reduced to those groups, it is the record from which later runs (and
// `vxmigrate recover`) move them. A group marked with the application that could not empty it
// makes the run fail, since that application is installed and the move can be retried; one
// whose application never got that far (its bundle is in the recovery area) waits quietly.
// The map goes with the last group. False when a marked group remains.
bool SettleInstallMap(const FileURL& installMapPath, const std::optional<PlistDictionary>& groups,
                      const VXFileManager& fileManager) {
  PlistDictionary unmigrated;
  size_t marked = 0;
  for (const auto& [group, entry] : groups.value_or(PlistDictionary{})) {
    const bool owned = entry.stringForKey(kGroupLeftoverOwnerKey) != nullptr;
    const std::string* devicePath = entry.stringForKey("Container");
    if (owned || (devicePath && fileManager.itemExistsAtURL(ResolveDevicePath(*devicePath, true)))) {
      unmigrated.emplace(group, entry);
      marked += owned ? 1 : 0;
    }
  }
  if (unmigrated.empty()) {
    ErrorRef removeError;
    if (!fileManager.itemDoesNotExistAtURL(installMapPath) &&
        !fileManager.removeItemAtURL(installMapPath, &removeError)) {
      VX_MIGRATION_LOG(3, kRunOperation, "VXAppMigrator: Failed to remove %@ : %@",
                       installMapPath.path(), removeError);
    }
    return true;
  }
  const size_t count = unmigrated.size();
  const PlistDictionary reduced{{kGroupContainersKey, std::move(unmigrated)}};
  if (!WritePropertyListFile(installMapPath.path(), PlistValue(reduced))) {
    VX_MIGRATION_LOG(3, kRunOperation, "VXAppMigrator: Failed to record group containers in %@",
                     installMapPath.path());
  }
  if (marked > 0) {
    VX_MIGRATION_LOG(3, kRunOperation,
                     "VXAppMigrator: Keeping %@ because %lu group containers still hold items",
                     installMapPath.path(), static_cast<unsigned long>(marked));
    return false;
  }
  VX_MIGRATION_LOG(5, kRunOperation,
                   "VXAppMigrator: Keeping %@ for %lu group containers whose applications have "
                   "not taken them yet",
                   installMapPath.path(), static_cast<unsigned long>(count));
  return true;
}

// An unreadable map is only reported; it stays where it is for someone to look at.
std::optional<PlistDictionary> ReadHarborMap(const FileURL& path,
                                             const VXFileManager& fileManager) {
  if (fileManager.itemDoesNotExistAtURL(path)) return std::nullopt;
  auto map = ReadPropertyListDictionary(path.path());
  if (!map) {
    VX_MIGRATION_LOG(3, kInitOperation,
                     "VXAppMigrator: Failed to load existing harbor map from %@", path.path());
  }
  return map;
}

// The old root and the old install map go only together, and only once nothing is left in
// the root: an entry still there may be an application that a later run must migrate, and
// that run needs the map's group containers. False when entries remain.
bool RemoveOldLayoutIfEmpty(VXGlobalConfiguration& config, const VXFileManager& fileManager,
                            const std::optional<PlistDictionary>& groups) {
  const FileURL root = config.oldContainerPath();
  ErrorRef error;
  auto remaining = fileManager.urlsForItemsInDirectoryAtURL(root, false, &error);
  if (!remaining) {
    // A missing root is the normal end of a run that cleared it; anything else leaves the
    // old layout for the next run to look at.
    if (!error || !error->isPOSIX(ENOENT)) {
      VX_MIGRATION_LOG(
          3, kRunOperation,
          "VXAppMigrator: Failed to determine if any items were remaining to migrate: %@", error);
      return true;
    }
    // Only a map kept for group leftovers was read; any other stays as it is.
    return !groups || SettleInstallMap(config.oldInstallMapPath(), groups, fileManager);
  }
  if (!remaining->empty()) {
    VX_MIGRATION_LOG(3, kRunOperation,
                     "VXAppMigrator: Not removing %@ because %lu items remain unmigrated.",
                     config.oldInstallMapPath().path(),
                     static_cast<unsigned long>(remaining->size()));
    return false;
  }
  ErrorRef removeError;
  if (!fileManager.removeItemAtURL(root, &removeError)) {
    VX_MIGRATION_LOG(3, kRunOperation, "VXAppMigrator: Failed to remove %@ : %@", root.path(),
                     removeError);
  }
  return SettleInstallMap(config.oldInstallMapPath(), groups, fileManager);
}

// Tells a later system which build this migration ran for. Not being able to say so does
// not undo the migration, so the outcome is only logged.
void RecordSystemVersion(VXGlobalConfiguration& config) {
  const FileURL file = config.dataDirectory().URLByAppendingPathComponent(
      kLastSystemVersionFileName);
  const std::optional<PlistDictionary> record = SystemVersionRecord();
  if (record && WritePropertyListFile(file.path(), PlistValue(*record))) {
    VX_MIGRATION_LOG(5, kRunOperation, "VXAppMigrator: Recorded current system version as %@",
                     SystemBuildVersion(*record));
  } else {
    VX_MIGRATION_LOG(3, kRunOperation, "VXAppMigrator: Failed to write current build info to %@",
                     file.path());
  }
}

bool StillThere(const FileURL& item) {
  struct stat st {};
  return ::lstat(item.fileSystemRepresentation(), &st) == 0 || errno != ENOENT;
}

// The report's name for what introspection did with an entry that gave no record.
const char* CourseWithoutRecord(const IntrospectionOutcome& outcome, const FileURL& item) {
  switch (outcome.course) {
    case IntrospectionCourse::StrayFile:
      if (outcome.keptAside) return kCourseStrayRecovered;
      return StillThere(item) ? kCourseFailedKept : kCourseStrayRemoved;
    case IntrospectionCourse::NoBundle:
      if (outcome.keptAside) return kCourseRecoveredNoBundle;
      return StillThere(item) ? kCourseFailedKept : kCourseRemovedNoBundle;
    case IntrospectionCourse::Vanished: return kCourseVanished;
    case IntrospectionCourse::SymlinkBundle:
    case IntrospectionCourse::Hostile: return kCourseLeftHostile;
    case IntrospectionCourse::Unreadable:
    case IntrospectionCourse::Record: break;
  }
  return kCourseLeftUnreadable;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

std::unique_ptr<VXAppMigrator> VXAppMigrator::create() { return _create(false); }

std::unique_ptr<VXAppMigrator> VXAppMigrator::createForPlanning() { return _create(true); }

std::unique_ptr<VXAppMigrator> VXAppMigrator::_create(bool readOnly) {
  std::unique_ptr<VXAppMigrator> migrator(new VXAppMigrator);
  migrator->_readOnly = readOnly;
  VXGlobalConfiguration& config = VXGlobalConfiguration::sharedInstance();
  const VXFileManager& fileManager = VXFileManager::defaultManager();

  const FileURL root = config.oldContainerPath();
  if (!fileManager.itemDoesNotExistAtURL(root)) {
    ErrorRef error;
    auto items = fileManager.urlsForItemsInDirectoryAtURL(root, true, &error);
    if (!items) {
      VX_MIGRATION_LOG(3, kInitOperation, "VXAppMigrator: Failed to get items at %@ : %@", root,
                       error);
      return nullptr;
    }
    if (items->empty()) {
      // Nothing to migrate. Only the root goes here; the install map is left as it is.
      if (!readOnly && !fileManager.removeItemAtURL(root, nullptr)) {
        VX_MIGRATION_LOG(3, kInitOperation, "VXAppMigrator: Failed to remove %@", root.path());
      }
      migrator->_groupContainerMap = ReadGroupLeftovers(config.oldInstallMapPath());
    } else {
      VX_MIGRATION_LOG(5, kInitOperation, "VXAppMigrator: %ld items to migrate",
                       static_cast<long>(items->size()));
      migrator->_itemsToMigrate = std::move(*items);
      migrator->_groupContainerMap = ReadGroupContainerMap(config.oldInstallMapPath());
    }
  }

  if (!migrator->_itemsToMigrate && !migrator->_groupContainerMap) {
    migrator->_groupContainerMap = ReadGroupLeftovers(config.oldInstallMapPath());
  }
  const FileURL dataDirectory = readOnly ? config.dataDirectoryLocation() : config.dataDirectory();
  migrator->_harborMap = ReadHarborMap(
      dataDirectory.URLByAppendingPathComponent(kHarborMapFileName), fileManager);
  return migrator;
}

std::string VXAppMigrator::dataClassName() const { return "VXAppMigrator"; }

float VXAppMigrator::estimatedDuration() const {
  if (!_itemsToMigrate) return kBaseDuration;
  return static_cast<float>(_itemsToMigrate->size()) * kDurationPerItem + kBaseDuration;
}

float VXAppMigrator::migrationProgress() const {
  if (!_itemsToMigrate || _itemsToMigrate->empty()) return kProgressWithoutItems;
  return static_cast<float>(static_cast<double>(_countItemsMigrated.load()) /
                            static_cast<double>(_itemsToMigrate->size()));
}

std::vector<ContainerReport> VXAppMigrator::containerReports() const { return _reports; }

ContainerReport* VXAppMigrator::_currentReport() {
  return _current && *_current < _reports.size() ? &_reports[*_current] : nullptr;
}

VXAppMigrator::~VXAppMigrator() { _removePlaceholderWorkDirectory(); }

bool VXAppMigrator::performMigration() {
  // An object made for a plan has promised to change nothing.
  if (_readOnly) return false;
  VXGlobalConfiguration& config = VXGlobalConfiguration::sharedInstance();
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  bool result = true;
  RunAttempts attempts(config.dataDirectory());

  // Applications go first, so that a VPN plug-in's container finds its application already
  // installed; among the early ones the latest found leads. Each record keeps the index of
  // its item's report.
  std::deque<std::pair<ContainerInfo, size_t>> workList;
  if (_itemsToMigrate) {
    _reports.reserve(_itemsToMigrate->size());
    for (const FileURL& item : *_itemsToMigrate) {
      const auto start = std::chrono::steady_clock::now();
      _reports.emplace_back().path = item.path();
      _current = _reports.size() - 1;
      FailureCapture failures;
      VX_MIGRATION_LOG(5, kRunOperation, "VXAppMigrator: Introspecting %@", item.path());
      if (item.lastPathComponent() == kStrayNoticeFileName) {
        // A note the old system left for the user; it has no place in the new layout, and
        // if it cannot go, the final listing still finds it.
        const bool removed = fileManager.removeItemAtURL(item, nullptr);
        _reports.back().course = removed ? kCourseStrayRemoved : kCourseFailedKept;
        ++_countItemsMigrated;
      } else if (attempts.crashes(item.lastPathComponent()) >=
                 RunAttempts::kCrashesBeforeSettingAside) {
        if (!_setAsideItemRunsDiedAt(item, attempts.identifier(item.lastPathComponent()))) {
          result = false;
        }
        attempts.finished(item.lastPathComponent());
        ++_countItemsMigrated;
      } else {
        attempts.begin(item.lastPathComponent(), std::string());
        bool orderResultEarly = false;
        IntrospectionOutcome outcome;
        std::optional<ContainerInfo> info = _introspectContainer(item, &orderResultEarly, &outcome);
        if (!info) {
          _reports.back().course = CourseWithoutRecord(outcome, item);
          attempts.finished(item.lastPathComponent());
          ++_countItemsMigrated;
        } else if (orderResultEarly) {
          workList.emplace_front(std::move(*info), *_current);
        } else {
          workList.emplace_back(std::move(*info), *_current);
        }
      }
      _reports.back().reason = failures.first();
      _reports.back().seconds = SecondsSince(start);
    }
  }

  for (const auto& [info, reportIndex] : workList) {
    const auto start = std::chrono::steady_clock::now();
    _current = reportIndex;
    FailureCapture failures;
    const PlistValue* identifier = Entry(info, kBundleIdentifierKey);
    const PlistValue* bundlePath = Entry(info, kBundlePathKey);
    VX_MIGRATION_LOG(5, kRunOperation, "VXAppMigrator: Migrating %@ at %@", identifier,
                     bundlePath);
    ContainerReport& report = _reports[reportIndex];
    if (identifier && identifier->string()) report.identifier = *identifier->string();
    const std::string name = FileURL::fileURLWithPath(report.path, true).lastPathComponent();
    attempts.begin(name, report.identifier);
    if (!_migrateContainerWithInfo(info)) {
      VX_MIGRATION_LOG(3, kRunOperation, "VXAppMigrator: Migration of %@ at %@ failed",
                       identifier, bundlePath);
      result = false;
      // A container that gave up its bundle has said so; any other failure keeps it.
      if (report.course.empty()) report.course = kCourseFailedKept;
      // What stopped the migration explains the course better than a note of introspection.
      report.reason = failures.first();
    } else {
      report.course = kCourseMigrated;
    }
    attempts.finished(name);
    report.seconds += SecondsSince(start);
    ++_countItemsMigrated;
  }
  attempts.end();
  _current.reset();
  _removePlaceholderWorkDirectory();
  // Left until now, the retired placeholders' removals cost the installations nothing.
  AppWorkspace::defaultWorkspace().removeRetiredContainers();

  if (!_migrateLeftoverGroupContainers()) result = false;
  if (!_migrateSafeHarbors()) result = false;

  const PlistDictionary protectionOptions{
      {kVXUpdateSystemAppDataContainerDataProtection, PlistValue(true)}};
  if (!VelotrixUpdateContainerDataProtectionForMigratorOnly(protectionOptions)) {
    VX_MIGRATION_LOG(3, kRunOperation,
                     "VXAppMigrator: Failed to update container data protection");
    result = false;
  }

  if (!RemoveOldLayoutIfEmpty(config, fileManager, _groupContainerMap)) {
    result = false;
  } else if (result) {
    RecordSystemVersion(config);
  }

  if (!result) {
    VX_MIGRATION_LOG(3, kRunOperation,
                     "VXAppMigrator: Returning migration failed. Please include the contents "
                     "of /var/mobile/Library/Logs/Velotrix and /var/Mobile/Library/Logs/"
                     "Transhift in a bug report.");
  }
  return result;
}

}  // namespace vx
