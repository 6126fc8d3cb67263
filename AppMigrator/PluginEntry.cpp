// The module's entry point: the host looks this symbol up after loading the module.
#include "AppMigrator/VXAppMigrator.h"

extern "C" __attribute__((visibility("default"))) vx::MigratorPlugin* VXCreateMigratorPlugin() {
  // The old layout could not be read: refusing is better than a run that sees nothing.
  return vx::VXAppMigrator::create().release();
}

// The second entry point: a plug-in object that reads the old layout as the first does but
// changes nothing, for `vxmigrate plan`.
extern "C" __attribute__((visibility("default"))) vx::MigratorPlugin*
VXCreateMigratorPluginForPlanning() {
  return vx::VXAppMigrator::createForPlanning().release();
}
