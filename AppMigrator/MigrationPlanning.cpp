// The plan: what a run would make of the old layout as it stands, told without touching it.
// Every entry goes through the run's own introspection (made read-only by the object's
// creation), so the plan's course for an entry is the one the run would take; what follows
// introspection is foreseen from the same facts the steps would ask for: the workspace's
// answers, the bundle's information list and the old install map.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <set>
#include <tuple>
#include <utility>

#include "AppMigrator/ContainerFiles.h"
#include "AppMigrator/FailureCapture.h"
#include "AppMigrator/ItemCensus.h"
#include "AppMigrator/VXAppMigrator.h"
#include "configuration/VXGlobalConfiguration.h"
#include "filemanager/VXFileManager.h"
#include "platform/files/Beneath.h"
#include "platform/files/DirectoryNames.h"
#include "platform/installer/RecoveryArea.h"
#include "platform/system/DeviceRoot.h"
#include "platform/workspace/AppWorkspace.h"
#include "platform/workspace/WorkspacePackage.h"

namespace vx {
namespace {

constexpr const char* kHarborPathKey = "HarborPathKey";
constexpr const char* kGroupContainerKey = "Container";

const std::string* Text(const ContainerInfo& info, const char* key) {
  auto it = info.find(key);
  return it == info.end() ? nullptr : it->second.string();
}

// What a bundle of the container holds, wherever in the container the record places it
// (beside the data, or already staged by a cut-off attempt).
uint64_t BundleBytes(int containerFd, const std::string& container, const std::string& bundle) {
  const std::optional<std::string> relative = BundleLocationInContainer(container, bundle);
  if (!relative) return 0;
  const size_t slash = relative->rfind('/');
  if (slash == std::string::npos) return CensusOfItemAt(containerFd, *relative).bytes;
  const UniqueFd parent =
      OpenBeneath(containerFd, relative->substr(0, slash), O_RDONLY | O_DIRECTORY);
  return parent ? CensusOfItemAt(parent.get(), relative->substr(slash + 1)).bytes : 0;
}

std::vector<std::string> DeclaredGroups(const std::optional<PlistValue>& info) {
  std::vector<std::string> groups;
  const PlistValue* declared = info ? info->find("VXAppGroups") : nullptr;
  if (!declared || !declared->array()) return groups;
  for (const PlistValue& group : *declared->array()) {
    if (group.string() && !group.string()->empty()) groups.push_back(*group.string());
  }
  return groups;
}

// Whether anything other than a directory stands where staging would put the bundle: the
// installation step refuses to create its directories through such an entry.
std::optional<std::string> HostileStaging(int containerFd) {
  struct stat st {};
  if (::fstatat(containerFd, kStagingName, &st, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  if (!S_ISDIR(st.st_mode)) return std::string(kStagingName);
  const UniqueFd staging = OpenBeneath(containerFd, kStagingName, O_RDONLY | O_DIRECTORY);
  if (!staging) return std::string(kStagingName);
  if (::fstatat(staging.get(), kPayloadName, &st, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  if (!S_ISDIR(st.st_mode)) return std::string(kStagingName) + "/" + kPayloadName;
  return std::nullopt;
}

// The plan's course and fate of an entry for which introspection gave no record.
std::pair<const char*, const char*> CourseWithoutRecord(const IntrospectionOutcome& outcome) {
  switch (outcome.course) {
    case IntrospectionCourse::StrayFile:
      return {kPlanStrayFile, outcome.keptAside ? kFateRecover : kFateRemove};
    case IntrospectionCourse::Vanished:
      return {kPlanVanished, kFateRemove};
    case IntrospectionCourse::NoBundle:
      return {kPlanNoBundle, outcome.keptAside ? kFateRecover : kFateRemove};
    case IntrospectionCourse::SymlinkBundle:
      return {kPlanSymlinkBundle, kFateLeave};
    case IntrospectionCourse::Hostile:
      return {kPlanHostile, kFateLeave};
    case IntrospectionCourse::Unreadable:
    case IntrospectionCourse::Record:
      break;
  }
  return {kPlanUnreadable, kFateLeave};
}

// What the container would still hold with bytes in it once the run had moved its data,
// staged its bundles and captured their store data: the items the run sets aside with it.
// An old placeholder's container keeps its bundle (which the system made) and its store data.
std::vector<std::string> LeftOvers(int containerFd, const std::string& container,
                                   const std::set<std::string>& bundles, bool placeholder) {
  const VXGlobalConfiguration& configuration = VXGlobalConfiguration::sharedInstance();
  std::set<std::string> placed = ContainerBookkeepingNames();
  for (const std::string& name : configuration.appUserDataItemNames()) placed.insert(name);
  if (!placeholder) {
    for (const std::string& name : configuration.appBundleMetadataItemNames()) placed.insert(name);
  }
  placed.insert(bundles.begin(), bundles.end());
  // The run's own staging directory, unless the application made one while its bundle still
  // lay in its place: that one goes to the recovery area before the name is used.
  struct stat st {};
  const bool bundleInPlace = std::any_of(bundles.begin(), bundles.end(), [&](const std::string& b) {
    return ::fstatat(containerFd, b.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
  });
  if (placeholder || !bundleInPlace) placed.insert(kStagingName);
  std::vector<std::string> names, left;
  if (!ReadDirectoryNames(containerFd, &names)) return left;
  for (const std::string& name : names) {
    if (placed.count(name)) continue;
    const FileURL item =
        FileURL::fileURLWithPath(container, true).URLByAppendingPathComponent(name);
    if (ItemHoldsUserBytes(item, ContainerBookkeepingNames())) left.push_back(name);
  }
  std::sort(left.begin(), left.end());
  return left;
}

}  // namespace

void VXAppMigrator::_planRecord(const ContainerInfo& info, PlannedEntry* entry) {
  const std::string* containerPath = Text(info, kContainerPathKey);
  const std::string* bundlePath = Text(info, kBundlePathKey);
  const std::string* identifier = Text(info, kBundleIdentifierKey);
  const std::string* type = Text(info, kContainerTypeKey);
  if (!containerPath || !bundlePath || !identifier) {
    entry->fate = kFateLeave;
    entry->reason = "incomplete container record";
    return;
  }
  entry->identifier = *identifier;
  const bool isApp = type && *type == kContainerTypeApp;
  const FileURL container = FileURL::fileURLWithPath(*containerPath, true);
  const FileURL bundle = FileURL::fileURLWithPath(*bundlePath, true);
  const UniqueFd containerFd = OpenDirectoryNoFollow(container.fileSystemRepresentation());
  if (!containerFd) {
    entry->fate = kFateLeave;
    entry->reason = "the container cannot be opened: " + std::string(std::strerror(errno));
    return;
  }

  AppWorkspace& workspace = AppWorkspace::defaultWorkspace();
  const bool installed = workspace.applicationIsInstalled(*identifier);
  entry->installation = !isApp      ? kInstallNotNeeded
                        : installed ? kInstallInstalled
                                    : kInstallPlaceholder;
  entry->oldBundleIsPlaceholder = VXFileManager::defaultManager().bundleAtURLIsPlaceholder(bundle);

  for (const std::string& name : VXGlobalConfiguration::sharedInstance().appUserDataItemNames()) {
    const ItemCensus census = CensusOfItemAt(containerFd.get(), name);
    if (census.exists) entry->data.push_back({name, std::string(), census.files, census.bytes});
  }
  entry->bundleBytes = BundleBytes(containerFd.get(), *containerPath, *bundlePath);
  if (const std::string* second = Text(info, kSecondBundlePathKey)) {
    entry->bundleBytes += BundleBytes(containerFd.get(), *containerPath, *second);
  }

  if (_harborMap) {
    if (auto harbor = _harborMap->find(*identifier); harbor != _harborMap->end()) {
      if (const std::string* path = harbor->second.stringForKey(kHarborPathKey)) {
        entry->safeHarbors.push_back(*path);
      }
    }
  }

  // A VPN plug-in's container has no placeholder to make it known: the workspace must know
  // it already, or learn it from an application installed earlier in the same run.
  if (!isApp && !installed) {
    entry->fate = kFateLeave;
    entry->reason = "the workspace knows no bundle " + *identifier +
                    ", so its data has nowhere to go; the container stays";
    return;
  }
  entry->fate = kFateMigrate;
  std::set<std::string> bundles{bundle.lastPathComponent()};
  if (const std::string* second = Text(info, kSecondBundlePathKey)) {
    bundles.insert(FileURL::fileURLWithPath(*second, true).lastPathComponent());
  }
  entry->leftOvers =
      LeftOvers(containerFd.get(), *containerPath, bundles, entry->oldBundleIsPlaceholder);
  if (entry->oldBundleIsPlaceholder) return;  // data only: nothing is installed

  // A bundle already staged or installed by a cut-off attempt has no list here.
  const std::optional<std::string> bundleInContainer =
      BundleLocationInContainer(*containerPath, *bundlePath);
  const std::optional<PlistValue> bundleInfo =
      bundleInContainer ? ReadBundleInfoBeneath(containerFd.get(), *bundleInContainer)
                        : std::nullopt;
  if (bundleInfo) {
    entry->refusal = BuiltInRefusalMessage(VXGlobalConfiguration::sharedInstance(), *identifier,
                                           BundleVersionText(bundleInfo->find("KBBundleVersion")))
                         .value_or("");
  }
  if (std::optional<std::string> link = HostileStaging(containerFd.get())) {
    entry->course = kPlanHostile;
    entry->fate = kFateRecover;
    entry->reason = "something other than a directory stands at " + *containerPath + "/" + *link +
                    ", where the bundle would be staged; its installation would fail";
    return;
  }
  // Groups move only after an installation; a group shared by several applications moves
  // with the first of them, which is why records are planned in the run's order.
  if (!_groupContainerMap) return;
  for (const std::string& group : DeclaredGroups(bundleInfo)) {
    auto it = _groupContainerMap->find(group);
    if (it == _groupContainerMap->end()) continue;
    const std::string* devicePath = it->second.stringForKey(kGroupContainerKey);
    if (!devicePath) continue;
    const FileURL old = ResolveDevicePath(*devicePath, true);
    const ItemCensus census = CensusOfItemAtPath(old.path());
    if (!census.exists) continue;  // its entry stays for a later run, as the run keeps it
    entry->groups.push_back({group, old.path(), census.files, census.bytes});
    _groupContainerMap->erase(it);
  }
}

MigrationPlan VXAppMigrator::planMigration() {
  MigrationPlan plan;
  const VXFileManager& fileManager = VXFileManager::defaultManager();
  const FileURL root = VXGlobalConfiguration::sharedInstance().oldContainerPath();
  plan.oldContainerRoot = root.path();
  plan.oldRootExists = !fileManager.itemDoesNotExistAtURL(root);
  if (!_readOnly) {
    plan.problem = "this plug-in object was made to migrate, not to plan";
    return plan;
  }

  // Planning takes groups out of the map as it assigns them; the object's own map stays.
  const std::optional<PlistDictionary> groupMap = _groupContainerMap;
  std::deque<std::pair<ContainerInfo, size_t>> records;
  std::set<std::string> items;
  for (const FileURL& item : _itemsToMigrate.value_or(std::vector<FileURL>{})) {
    items.insert(item.path());
    PlannedEntry& entry = plan.entries.emplace_back();
    entry.path = item.path();
    FailureCapture failures;
    if (item.lastPathComponent() == kStrayNoticeFileName) {
      entry.course = kPlanStrayFile;
      entry.fate = kFateRemove;
      continue;
    }
    bool early = false;
    IntrospectionOutcome outcome;
    std::optional<ContainerInfo> info = _introspectContainer(item, &early, &outcome);
    entry.reason = failures.first();
    if (info) {
      const std::string* type = Text(*info, kContainerTypeKey);
      entry.course = outcome.fromMarker                   ? kPlanResumed
                     : type && *type == kContainerTypeApp ? kPlanApplication
                                                          : kPlanVPNOnly;
      if (early) {
        records.emplace_front(std::move(*info), plan.entries.size() - 1);
      } else {
        records.emplace_back(std::move(*info), plan.entries.size() - 1);
      }
      continue;
    }
    std::tie(entry.course, entry.fate) = CourseWithoutRecord(outcome);
  }

  // Applications before VPN plug-ins, as the run orders them: an application installed with
  // its plug-in makes the plug-in's own container migratable.
  std::set<std::string> installedEarlier;
  for (auto& [info, index] : records) {
    PlannedEntry& entry = plan.entries[index];
    _planRecord(info, &entry);
    if (entry.fate == kFateLeave && entry.course == kPlanVPNOnly &&
        installedEarlier.count(entry.identifier)) {
      entry.fate = kFateMigrate;
      entry.reason.clear();
    }
    if (entry.fate != kFateMigrate || entry.oldBundleIsPlaceholder) continue;
    if (const std::string* second = Text(info, kSecondBundlePathKey)) {
      if (auto plugin = _bundleIdentifierForBundle(FileURL::fileURLWithPath(*second, true))) {
        installedEarlier.insert(*plugin);
      }
    }
  }
  _groupContainerMap = groupMap;

  // A link directly in the old root is never an item, and the run cannot empty the root
  // while it is there.
  if (plan.oldRootExists) {
    if (auto listed = fileManager.urlsForItemsInDirectoryAtURL(root, false, nullptr)) {
      for (const FileURL& entry : *listed) {
        if (items.count(entry.path())) continue;
        PlannedEntry& link = plan.entries.emplace_back();
        link.path = entry.path();
        link.course = kPlanHostile;
        link.fate = kFateLeave;
        link.reason =
            "a symbolic link in the old container root is never migrated, and the root cannot "
            "be removed while it is there";
      }
    }
  }

  for (PlannedEntry& entry : plan.entries) {
    entry.completes = entry.fate == kFateMigrate || entry.fate == kFateRemove ||
                      (entry.fate == kFateRecover &&
                       (entry.course == kPlanNoBundle || entry.course == kPlanStrayFile));
  }
  for (const auto& [identifier, harbor] : _harborMap.value_or(PlistDictionary{})) {
    if (const std::string* path = harbor.stringForKey(kHarborPathKey)) {
      plan.safeHarbors.push_back({identifier, *path});
    }
  }
  return plan;
}

}  // namespace vx
