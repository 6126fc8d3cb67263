// A plug-in's forecast of a run, made without changing anything on the device. A module
// offers it by exporting a second factory, `VXCreateMigratorPluginForPlanning`, whose plug-in
// object also derives from `MigrationPlanner`: that object reads the old layout as creation
// does but never acts on it, so it must not be asked to perform a migration.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/MigratorPlugin.h"

namespace vx {

// What the run would find an entry of the old container root to be.
inline constexpr const char* kPlanApplication = "application";
inline constexpr const char* kPlanVPNOnly = "vpn-only";
inline constexpr const char* kPlanResumed = "resumed";  // described by its migration marker
inline constexpr const char* kPlanStrayFile = "stray-file";
inline constexpr const char* kPlanNoBundle = "no-bundle";
inline constexpr const char* kPlanSymlinkBundle = "symlink-bundle";
inline constexpr const char* kPlanUnreadable = "unreadable";
inline constexpr const char* kPlanHostile = "hostile";
inline constexpr const char* kPlanVanished = "vanished";

// What would become of it.
inline constexpr const char* kFateMigrate = "migrate";
inline constexpr const char* kFateRemove = "remove";
inline constexpr const char* kFateRecover = "recover";  // to the recovery area
inline constexpr const char* kFateLeave = "leave";      // stays; the run cannot complete

// How the application would be made known to the workspace before its data moves.
inline constexpr const char* kInstallPlaceholder = "placeholder";  // one will be installed
inline constexpr const char* kInstallInstalled = "installed";      // already known
inline constexpr const char* kInstallNotNeeded = "not-needed";     // a VPN plug-in's container

struct PlannedItem {
  std::string name;  // a user-data item's name, or a group's identifier
  std::string path;  // for a group: its old container
  uint64_t files = 0;
  uint64_t bytes = 0;
};

struct PlannedEntry {
  std::string path;
  std::string course;  // one of kPlan*
  std::string fate;    // one of kFate*
  std::string identifier;
  std::string installation;             // one of kInstall*, for an entry that would migrate
  bool oldBundleIsPlaceholder = false;  // its data moves, nothing is installed
  // The workspace's expected refusal of the bundle (an older copy of a built-in
  // application): the data moves all the same and the built-in copy serves it.
  std::string refusal;
  std::vector<PlannedItem> data;
  std::vector<PlannedItem> groups;  // old group containers it would move
  std::vector<std::string> safeHarbors;
  // Items the container would still hold once its data and bundle had moved, holding bytes:
  // they go to the recovery area with the container.
  std::vector<std::string> leftOvers;
  uint64_t bundleBytes = 0;
  std::string reason;  // the first failure the run would log for it, or why it would stop
  // Whether the run would be done with it: migrated, or removed (its content perhaps kept
  // in the recovery area) without failing the run.
  bool completes = false;
};

struct PlannedHarbor {
  std::string identifier;
  std::string path;
};

struct MigrationPlan {
  std::string oldContainerRoot;
  bool oldRootExists = false;
  std::vector<PlannedEntry> entries;
  std::vector<PlannedHarbor> safeHarbors;
  std::string problem;  // set when the old layout cannot be read at all
};

class MigrationPlanner {
 public:
  virtual ~MigrationPlanner() = default;
  virtual MigrationPlan planMigration() = 0;
};

}  // namespace vx

// The planning factory a module may export beside `VXCreateMigratorPlugin`.
extern "C" vx::MigratorPlugin* VXCreateMigratorPluginForPlanning();
inline constexpr const char* kVXCreateMigratorPluginForPlanningSymbol =
    "VXCreateMigratorPluginForPlanning";
