// Subcommands of vxmigrate register themselves, each from its own file, so that adding a
// command never touches another command's code.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

namespace vx::host {

// Adds the subcommand to the application. The command's callback sets `*exitStatus`.
using CommandSetup = std::function<void(CLI::App& app, int* exitStatus)>;

struct CommandRegistration {
  CommandRegistration(int order, CommandSetup setup);
};

// The registered commands in their order (help lists them so).
std::vector<CommandSetup> RegisteredCommands();

}  // namespace vx::host
