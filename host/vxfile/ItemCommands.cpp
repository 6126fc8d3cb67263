// Commands that make, copy, move and remove items: rm, cp, mv, mkdir.
#include <cstdint>

#include "filemanager/VXFileManager.h"
#include "host/vxfile/Tool.h"

namespace vx::vxfile {
namespace {

const VXFileManager& FM() { return VXFileManager::defaultManager(); }

void AddRm(CLI::App& app, const Context& context) {
  struct Options {
    std::vector<std::string> paths;
    unsigned workers = 0;
  };
  auto options = std::make_shared<Options>();
  CLI::App* rm = AddCommand(app, context, "rm", "remove each PATH with everything in it",
                            [options](const Command& command) {
                              // Every path is tried; one that fails does not spare the others.
                              bool failed = false;
                              for (const std::string& path : options->paths) {
                                ErrorRef error;
                                if (!FM().removeItemAtURL(PathArgument(path),
                                                          Workers(options->workers), &error)) {
                                  command.fail(error);
                                  failed = true;
                                }
                              }
                              if (!failed) command.succeed();
                            });
  rm->add_option("PATH", options->paths)->required();
  AddWorkersOption(*rm, options->workers);
}

// cp and mv differ in the operation, and a move, a rename, has no use for workers.
void AddTransfer(CLI::App& app, const Context& context, const char* name, const char* description,
                 bool isCopy) {
  struct Options {
    std::string source;
    std::string destination;
    unsigned workers = 0;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command =
      AddCommand(app, context, name, description, [options, isCopy](const Command& command) {
        ErrorRef error;
        const FileURL source = PathArgument(options->source);
        const FileURL destination = PathArgument(options->destination);
        const bool done = isCopy ? FM().copyItemAtURL(source, destination,
                                                      Workers(options->workers), &error)
                                 : FM().moveItemAtURL(source, destination, &error);
        if (!done) return command.fail(error);
        command.succeed();
      });
  command->add_option("SRC", options->source)->required();
  command->add_option("DST", options->destination)->required();
  if (isCopy) AddWorkersOption(*command, options->workers);
}

void AddMkdir(CLI::App& app, const Context& context) {
  struct Options {
    std::string directory;
    bool parents = false;
    std::string mode = "755";
    int32_t protectionClass = -1;  // leaves the class as the file system gives it
  };
  auto options = std::make_shared<Options>();
  CLI::App* mkdir = AddCommand(
      app, context, "mkdir", "make DIR (an existing directory is fine)",
      [options](const Command& command) {
        ErrorRef error;
        const auto mode = static_cast<mode_t>(std::stoul(options->mode, nullptr, 8));
        if (!FM().createDirectoryAtURL(PathArgument(options->directory, true), options->parents,
                                       mode, options->protectionClass, &error)) {
          return command.fail(error);
        }
        command.succeed();
      });
  mkdir->add_option("DIR", options->directory)->required();
  mkdir->add_flag("-p", options->parents, "make missing parents too, with the same mode");
  mkdir->add_option("--mode", options->mode, "octal permission bits (default 755)")
      ->check([](const std::string& text) -> std::string {
        const bool octal = !text.empty() && text.size() <= 4 &&
                           text.find_first_not_of("01234567") == std::string::npos;
        return octal ? "" : "mode must be octal digits, such as 755";
      });
  mkdir->add_option("--class", options->protectionClass, "data-protection class to set");
}

}  // namespace

void AddItemCommands(CLI::App& app, const Context& context) {
  AddRm(app, context);
  AddTransfer(app, context, "cp", "copy SRC, a file or a whole tree, to DST", true);
  AddTransfer(app, context, "mv", "move SRC to DST, copying across file systems", false);
  AddMkdir(app, context);
}

}  // namespace vx::vxfile
