// vxmigrate: the migration host and the tools around it.
#include <CLI/CLI.hpp>

#include "host/Command.h"

int main(int argc, char** argv) {
  CLI::App app{"vxmigrate: brings a device's applications from the old layout into the current one"};
  app.require_subcommand(1);
  int exitStatus = 0;
  for (const auto& setup : vx::host::RegisteredCommands()) setup(app, &exitStatus);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Usage errors exit 2; --help exits 0.
    const int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }
  return exitStatus;
}
