// The contract between the migration host and a migration plug-in. A plug-in is a loadable
// module that exports the factory `VXCreateMigratorPlugin`; the host creates one plug-in
// object, asks its name and estimated duration, runs it once and polls its progress from
// another thread while it runs.
#pragma once

#include <string>

namespace vx {

class MigratorPlugin {
 public:
  virtual ~MigratorPlugin() = default;

  virtual std::string dataClassName() const = 0;
  // Runs the whole migration once, on the calling thread.
  virtual bool performMigration() = 0;
  // Seconds the host may expect the run to take.
  virtual float estimatedDuration() const = 0;
  // A fraction from 0 to 1; safe to call from any thread during the run.
  virtual float migrationProgress() const = 0;
};

}  // namespace vx

// The factory a module exports: a new plug-in (the caller owns it), or null when the
// plug-in refuses to run.
extern "C" vx::MigratorPlugin* VXCreateMigratorPlugin();
using VXCreateMigratorPluginFunction = vx::MigratorPlugin* (*)();
inline constexpr const char* kVXCreateMigratorPluginSymbol = "VXCreateMigratorPlugin";
