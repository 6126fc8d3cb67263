// The module's one entry point: the host looks this symbol up after loading the module.
#include "AppMigrator/VXAppMigrator.h"

extern "C" __attribute__((visibility("default"))) vx::MigratorPlugin* VXCreateMigratorPlugin() {
  // The old layout could not be read: refusing is better than a run that sees nothing.
  return vx::VXAppMigrator::create().release();
}
