// `vxmigrate sample-device DIR`: writes the built-in sample device in the old layout.
#include <iostream>

#include "host/Command.h"
#include "host/sample/SampleDevice.h"

namespace vx::host {
namespace {

const CommandRegistration kSampleDevice(40, [](CLI::App& app, int* exitStatus) {
  struct Args {
    std::string directory;
    sample::SampleDeviceOptions options;
  };
  auto args = std::make_shared<Args>();
  CLI::App* command = app.add_subcommand(
      "sample-device", "Write a sample device in the old layout, with a manifest of its data");
  command->add_option("DIR", args->directory, "Directory to hold the device")->required();
  command->add_option("--apps", args->options.apps, "Number of applications")
      ->check(CLI::Range(0, 100000));
  command->add_option("--seed", args->options.seed, "Seed: the same seed gives the same device");
  command->add_option("--data-bytes", args->options.dataBytes,
                      "Bytes of data per application, spread over files of varied sizes");
  command->add_option("--bundle-bytes", args->options.bundleBytes,
                      "Size of each bundle's executable (default: a few KiB)")
      ->check(CLI::Range(uint64_t{4}, uint64_t{1} << 32));
  command->callback([args, exitStatus]() {
    std::string problem;
    if (!sample::WriteSampleDevice(args->directory, args->options, &problem)) {
      std::cerr << "vxmigrate sample-device: " << problem << "\n";
      *exitStatus = 1;
      return;
    }
    std::cout << "Wrote a sample device with " << args->options.apps << " applications to "
              << args->directory << "\n";
  });
});

}  // namespace
}  // namespace vx::host
