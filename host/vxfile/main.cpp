// vxfile: the file manager of the installer family from the command line, one subcommand
// per operation, for looking into and repairing a device tree by hand.
#include <CLI/CLI.hpp>

#include "host/vxfile/Tool.h"
#include "platform/log/InstallerLog.h"
#include "platform/log/LogSinks.h"

int main(int argc, char** argv) {
  using namespace vx::vxfile;
  CLI::App app{"vxfile: the installer's file operations from the command line"};
  app.require_subcommand(1);
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, "show the installer log, debugging detail included");

  int exitStatus = kExitSuccess;
  std::function<void()> pending;
  const Context context{std::make_shared<FailureLog>(), &exitStatus, &pending};
  AddTreeCommands(app, context);
  AddItemCommands(app, context);
  AddAttributeCommands(app, context);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Usage errors exit 2; --help exits 0.
    return app.exit(e) == 0 ? kExitSuccess : kExitUsage;
  }

  vx::LogHandle handle{7};
  vx::AddLogSink(context.failures);
  if (verbose) {
    vx::gLogHandle = &handle;
    vx::AddLogSink(std::make_shared<vx::TerminalLogSink>(2, 7, false));
  }
  if (pending) pending();
  vx::RemoveAllLogSinks();
  vx::gLogHandle = nullptr;
  return exitStatus;
}
