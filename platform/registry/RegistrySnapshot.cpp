#include "platform/registry/RegistrySnapshot.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <optional>

#include "platform/files/UniqueFd.h"

namespace vx {
namespace {

bool Exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> DirectoryNames(const std::string& path) {
  std::vector<std::string> names;
  UniqueDir dir(::opendir(path.c_str()));
  if (!dir) return names;
  while (const dirent* entry = ::readdir(dir.get())) names.emplace_back(entry->d_name);
  return names;
}

// The number that follows `prefix` when the rest of `name` is all digits.
std::optional<unsigned long> NumberAfter(const std::string& name, const std::string& prefix) {
  if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) {
    return std::nullopt;
  }
  const std::string digits = name.substr(prefix.size());
  if (digits.size() > 9 ||
      !std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c); })) {
    return std::nullopt;
  }
  return std::stoul(digits);
}

// Names of `directory` of the form <prefix><number>, in numeric order.
std::vector<std::string> NumberedNames(const std::string& directory, const std::string& prefix) {
  std::vector<std::pair<unsigned long, std::string>> numbered;
  for (std::string& name : DirectoryNames(directory)) {
    if (auto n = NumberAfter(name, prefix)) numbered.emplace_back(*n, std::move(name));
  }
  std::sort(numbered.begin(), numbered.end());
  std::vector<std::string> names;
  for (auto& entry : numbered) names.push_back(std::move(entry.second));
  return names;
}

bool LoopDriverPresent(const std::string& sysfs) {
  return Exists(sysfs + "/module/loop") ||
         !NumberedNames(sysfs + "/devices/virtual/block", "loop").empty();
}

// /sys/block lists whole disks; /sys/class/block is the fallback of older layouts.
std::string BlockDirectory(const std::string& sysfs) {
  return Exists(sysfs + "/block") ? sysfs + "/block" : sysfs + "/class/block";
}

class Builder {
 public:
  size_t add(std::optional<size_t> parent, const char* className) {
    snapshot_->nodes.push_back({{className, "KzService"}, {}, {}});
    const size_t index = snapshot_->nodes.size() - 1;
    if (parent) snapshot_->nodes[*parent].children.push_back(index);
    return index;
  }
  RegistryNode& node(size_t index) { return snapshot_->nodes[index]; }
  std::shared_ptr<const RegistrySnapshot> finish() { return std::move(snapshot_); }

 private:
  std::shared_ptr<RegistrySnapshot> snapshot_ = std::make_shared<RegistrySnapshot>();
};

void AddMedia(Builder& builder, size_t parent, const std::string& bsdName) {
  const size_t media = builder.add(parent, "KzMedia");
  builder.node(media).properties.emplace("BSD Name", PlistValue(bsdName));
}

}  // namespace

bool RegistrySnapshot::conformsTo(size_t node, const std::string& className) const {
  const auto& classes = nodes.at(node).classes;
  return std::find(classes.begin(), classes.end(), className) != classes.end();
}

std::vector<size_t> RegistrySnapshot::descendants(size_t node) const {
  std::vector<size_t> out;
  std::vector<size_t> pending(nodes.at(node).children.rbegin(), nodes.at(node).children.rend());
  while (!pending.empty()) {
    const size_t next = pending.back();
    pending.pop_back();
    out.push_back(next);
    pending.insert(pending.end(), nodes[next].children.rbegin(), nodes[next].children.rend());
  }
  return out;
}

std::shared_ptr<const RegistrySnapshot> ScanSysfsRegistry(const std::string& sysfsRoot) {
  Builder builder;
  const size_t root = builder.add(std::nullopt, "KzRegistryRoot");
  if (!LoopDriverPresent(sysfsRoot)) return builder.finish();

  const size_t controller = builder.add(root, "KzPlovController");
  const std::string blocks = BlockDirectory(sysfsRoot);
  for (const std::string& loop : NumberedNames(blocks, "loop")) {
    const std::string device = blocks + "/" + loop;
    // An unbound loop device has no backing file: no disk image is attached to it.
    if (!Exists(device + "/loop/backing_file")) continue;
    const size_t drive = builder.add(controller, "KzPlovHDDrive");
    AddMedia(builder, drive, loop);
    const size_t whole = builder.node(drive).children.back();
    for (const std::string& partition : NumberedNames(device, loop + "p")) {
      AddMedia(builder, whole, partition);
    }
  }
  return builder.finish();
}

}  // namespace vx
