#include "host/Command.h"

#include <algorithm>
#include <utility>

namespace vx::host {
namespace {

std::vector<std::pair<int, CommandSetup>>& Registry() {
  static std::vector<std::pair<int, CommandSetup>> registry;
  return registry;
}

}  // namespace

CommandRegistration::CommandRegistration(int order, CommandSetup setup) {
  Registry().emplace_back(order, std::move(setup));
}

std::vector<CommandSetup> RegisteredCommands() {
  auto entries = Registry();
  std::stable_sort(entries.begin(), entries.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<CommandSetup> out;
  for (auto& e : entries) out.push_back(std::move(e.second));
  return out;
}

}  // namespace vx::host
