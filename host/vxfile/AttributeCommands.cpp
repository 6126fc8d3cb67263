// Commands for what a bundle or an item carries on itself: the placeholder mark, the
// install type and the data-protection class.
#include <cstdint>
#include <iostream>

#include "filemanager/VXFileManager.h"
#include "host/vxfile/Tool.h"

namespace vx::vxfile {
namespace {

const VXFileManager& FM() { return VXFileManager::defaultManager(); }

// NAME get|set TARGET [VALUE]: the value is required by set and refused by get.
template <typename Value>
struct GetSet {
  std::string action;
  std::string target;
  std::optional<Value> value;
};

template <typename Value>
CLI::App* AddGetSet(CLI::App& app, const Context& context, const char* name,
                    const char* description, const char* targetName,
                    std::function<void(const Command&, const GetSet<Value>&)> work) {
  auto options = std::make_shared<GetSet<Value>>();
  CLI::App* command =
      AddCommand(app, context, name, description, [options, work](const Command& c) {
        // A set without a value, or a get with one, is a usage error, not a failed operation.
        if ((options->action == "set") != options->value.has_value()) {
          return c.usage(options->action == "set" ? "set needs a VALUE" : "get takes no VALUE");
        }
        work(c, *options);
      });
  command->add_option("ACTION", options->action)->required()->check(CLI::IsMember({"get", "set"}));
  command->add_option(targetName, options->target)->required();
  command->add_option("VALUE", options->value);
  return command;
}

void AddPlaceholder(CLI::App& app, const Context& context) {
  struct Options {
    std::string action;
    std::string bundle;
  };
  auto options = std::make_shared<Options>();
  CLI::App* placeholder = AddCommand(
      app, context, "placeholder", "mark BUNDLE as a placeholder, or tell whether it is one",
      [options](const Command& command) {
        const FileURL bundle = PathArgument(options->bundle, true);
        if (options->action == "test") {
          std::cout << (FM().bundleAtURLIsPlaceholder(bundle) ? "yes" : "no") << "\n";
          return command.succeed();
        }
        ErrorRef error;
        if (!FM().markBundleAsPlaceholder(bundle, &error)) return command.fail(error);
        command.succeed();
      });
  placeholder->add_option("ACTION", options->action)
      ->required()
      ->check(CLI::IsMember({"mark", "test"}));
  placeholder->add_option("BUNDLE", options->bundle)->required();
}

void AddInstallType(CLI::App& app, const Context& context) {
  AddGetSet<uint64_t>(app, context, "install-type", "read or write BUNDLE's install type", "BUNDLE",
                      [](const Command& command, const GetSet<uint64_t>& options) {
                        const FileURL bundle = PathArgument(options.target, true);
                        ErrorRef error;
                        if (options.action == "set") {
                          if (!FM().setInstallType(*options.value, bundle, &error))
                            return command.fail(error);
                          return command.succeed();
                        }
                        auto installType = FM().installTypeForBundle(bundle, &error);
                        if (!installType) return command.fail(error);
                        std::cout << *installType << "\n";
                        command.succeed();
                      });
}

void AddProtection(CLI::App& app, const Context& context) {
  AddGetSet<int32_t>(
      app, context, "protection", "read or set PATH's data-protection class", "PATH",
      [](const Command& command, const GetSet<int32_t>& options) {
        const FileURL url = PathArgument(options.target);
        ErrorRef error;
        if (options.action == "set") {
          if (!FM().setDataProtectionClassOfItemAtURL(url, *options.value, nullptr, &error)) {
            return command.fail(error);
          }
          return command.succeed();
        }
        int32_t protectionClass = 0;
        if (!FM().dataProtectionClassOfItemAtURL(url, &protectionClass, &error)) {
          return command.fail(error);
        }
        std::cout << protectionClass << "\n";
        command.succeed();
      });
}

}  // namespace

void AddAttributeCommands(CLI::App& app, const Context& context) {
  AddPlaceholder(app, context);
  AddInstallType(app, context);
  AddProtection(app, context);
}

}  // namespace vx::vxfile
