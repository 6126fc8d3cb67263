#include "host/sample/SampleDevice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "platform/image/IconImage.h"
#include "platform/plist/PlistFile.h"
#include "support/FileDigest.h"

namespace vx::sample {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const char* const kNames[] = {"Atlas",  "Beacon", "Cinder",  "Drift",  "Ember",    "Fathom",
                              "Glacier", "Harbor", "Iris",    "Juniper", "Kestrel", "Lumen",
                              "Meridian", "Nimbus", "Orchid", "Pebble", "Quartz",   "Ripple",
                              "Sable",  "Tundra", "Umber",   "Vesper", "Willow",   "Zephyr"};
constexpr int kNameCount = sizeof kNames / sizeof kNames[0];

// Roles of the first applications, so that every course of the migration is on the device.
constexpr int kAppWithVPNPlugin = 1;
constexpr int kOlderCopyOfBuiltIn = 2;
constexpr int kFirstGroupMember = 3;
constexpr int kSecondGroupMember = 4;
constexpr int kSoleGroupMember = 5;
constexpr int kAppWithHarbor = 6;

class Generator {
 public:
  Generator(std::string root, const SampleDeviceOptions& options)
      : root_(std::move(root)), options_(options), rng_(options.seed) {}

  bool run(std::string* problem);

 private:
  std::string uuid();
  std::string bytes(size_t n);
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  bool write(const std::string& relative, const std::string& content, mode_t mode = 0644);
  bool writePlist(const std::string& relative, const PlistDictionary& dict);
  json recordFile(const std::string& absolute, const std::string& relativeToApp);

  bool writeBundle(const std::string& bundleDir, const std::string& identifier,
                   const std::string& name, const std::string& version,
                   const std::vector<std::string>& groups);
  bool writeData(const std::string& container, const std::string& identifier, json* files);
  bool writeStoreMetadata(const std::string& container, const std::string& identifier,
                          const std::string& name, bool withGeoJSON);

  std::string root_;
  SampleDeviceOptions options_;
  std::mt19937_64 rng_;
  std::string error_;
};

std::string Generator::uuid() {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (int i = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) out += '-';
    out += kHex[rng_() & 15];
  }
  return out;
}

std::string Generator::bytes(size_t n) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; i += 8) {
    uint64_t r = rng_();
    for (size_t j = 0; j < 8 && i + j < n; ++j) out[i + j] = static_cast<char>(r >> (8 * j));
  }
  return out;
}

bool Generator::write(const std::string& relative, const std::string& content, mode_t mode) {
  const std::string p = path(relative);
  std::error_code ec;
  fs::create_directories(fs::path(p).parent_path(), ec);
  std::ofstream out(p, std::fstream::binary | std::fstream::trunc);
  out << content;
  out.close();
  if (!out || ::chmod(p.c_str(), mode) != 0) {
    error_ = "cannot write " + p;
    return false;
  }
  return true;
}

bool Generator::writePlist(const std::string& relative, const PlistDictionary& dict) {
  std::error_code ec;
  fs::create_directories(fs::path(path(relative)).parent_path(), ec);
  if (!WritePropertyListFile(path(relative), PlistValue(dict))) {
    error_ = "cannot write " + path(relative);
    return false;
  }
  return true;
}

json Generator::recordFile(const std::string& absolute, const std::string& relativeToApp) {
  struct stat st {};
  ::lstat(absolute.c_str(), &st);
  auto digest = VXCreateSHA256Digest(FileURL::fileURLWithPath(absolute));
  return json{{"path", relativeToApp},
              {"size", static_cast<uint64_t>(st.st_size)},
              {"sha256", digest.value_or("")}};
}

bool Generator::writeBundle(const std::string& bundleDir, const std::string& identifier,
                            const std::string& name, const std::string& version,
                            const std::vector<std::string>& groups) {
  PlistDictionary info{{"KBBundleIdentifier", PlistValue(identifier)},
                       {"KBBundleDisplayName", PlistValue(name)},
                       {"KBBundleExecutable", PlistValue(name)},
                       {"KBBundleVersion", PlistValue(version)},
                       {"KBBundleShortVersionString", PlistValue(version)},
                       {"KBBundleIconFile", PlistValue("Icon.png")}};
  if (!groups.empty()) {
    PlistArray array;
    for (const std::string& g : groups) array.emplace_back(g);
    info["VXAppGroups"] = PlistValue(std::move(array));
  }
  std::vector<uint8_t> png;
  if (!EncodePNG(GenerateIcon(identifier, name, 60), &png)) {
    error_ = "cannot encode the icon of " + identifier;
    return false;
  }
  return writePlist(bundleDir + "/Info.plist", info) &&
         write(bundleDir + "/" + name,
               "\x7f" "ELF" + bytes(options_.bundleBytes ? options_.bundleBytes - 4
                                                       : 4096 + rng_() % 28672),
               0755) &&
         write(bundleDir + "/Icon.png", std::string(png.begin(), png.end()));
}

bool Generator::writeStoreMetadata(const std::string& container, const std::string& identifier,
                                   const std::string& name, bool withGeoJSON) {
  PlistDictionary metadata{{"itemName", PlistValue(name)},
                           {"softwareVersionBundleId", PlistValue(identifier)},
                           {"itemId", PlistValue(static_cast<long long>(rng_() % 1000000000))}};
  PlistDictionary manifest{{"SinfPaths", PlistValue(PlistArray{PlistValue("SC_Info/" + name + ".sinf")})}};
  std::vector<uint8_t> artwork;
  EncodePNG(GenerateIcon(identifier, name, 32), &artwork);
  return writePlist(container + "/LyrandMetadata.plist", metadata) &&
         writePlist(container + "/Manifest.plist", manifest) &&
         write(container + "/LyrandArtwork", std::string(artwork.begin(), artwork.end())) &&
         (!withGeoJSON ||
          write(container + "/GeoJSON", "{\"type\": \"FeatureCollection\", \"features\": []}\n"));
}

bool Generator::writeData(const std::string& container, const std::string& identifier,
                          json* files) {
  // Sizes vary from empty to most of the budget; the names nest a few levels deep.
  const uint64_t budget = options_.dataBytes;
  struct Planned {
    std::string path;
    uint64_t size;
  };
  std::vector<Planned> planned = {
      {"Documents/notes.txt", budget / 16},
      {"Documents/Projects/2025/plan.md", budget / 32},
      {"Documents/Projects/2025/Assets/photo.raw", budget / 2},
      {"Documents/empty.dat", 0},
      {"Library/Preferences/" + identifier + ".plist", 0},  // written as a property list
      {"Library/Caches/thumbnails.db", budget / 8},
      {"Library/Application Support/store.sqlite", budget / 4},
      {"tmp/upload.part", budget / 64},
  };
  if (rng_() % 2) planned.push_back({"Marvish/state.bin", budget / 32});
  for (int i = 0, extra = static_cast<int>(rng_() % 4); i < extra; ++i) {
    planned.push_back({"Documents/Inbox/message-" + std::to_string(i) + ".eml", 1 + rng_() % 4096});
  }
  for (const Planned& p : planned) {
    if (p.path.rfind("Library/Preferences/", 0) == 0) {
      if (!writePlist(container + "/" + p.path,
                      PlistDictionary{{"LaunchCount", PlistValue(static_cast<long long>(rng_() % 500))},
                                      {"Owner", PlistValue(identifier)}})) {
        return false;
      }
    } else if (!write(container + "/" + p.path, bytes(p.size))) {
      return false;
    }
  }
  // A hard link and a symbolic link inside the data must survive the move as they are.
  if (::link(path(container + "/Documents/notes.txt").c_str(),
             path(container + "/Documents/notes-hardlink.txt").c_str()) != 0 ||
      ::symlink("Preferences", path(container + "/Library/CurrentPreferences").c_str()) != 0) {
    error_ = "cannot link inside " + path(container);
    return false;
  }
  planned.push_back({"Documents/notes-hardlink.txt", 0});
  for (const Planned& p : planned) {
    files->push_back(recordFile(path(container + "/" + p.path), p.path));
  }
  return true;
}

bool Generator::run(std::string* problem) {
  auto fail = [&]() {
    if (problem) *problem = error_;
    return false;
  };
  const std::string oldRoot = "private/var/mobile/Applications";
  std::error_code ec;
  if (fs::exists(path(oldRoot), ec)) {
    error_ = path(oldRoot) + " exists already; choose an empty directory";
    return fail();
  }
  if (!write("etc/os-release",
             "NAME=\"Sample Device OS\"\nVERSION_ID=\"19.1\"\nBUILD_ID=19B74\n"
             "PRETTY_NAME=\"Sample Device OS 19.1 (19B74)\"\n") ||
      !write(oldRoot + "/WhereDidMyApplicationsGo.txt",
             "Applications now live in private/var/mobile/Containers.\n")) {
    return fail();
  }

  json manifest{{"seed", options_.seed}, {"apps", json::array()}, {"groups", json::array()}};
  const std::string sharedGroup = "group.com.example.shared";
  std::string soleGroup;
  std::map<std::string, std::vector<std::string>> groupMembers;
  std::string harborIdentifier;

  for (int i = 0; i < options_.apps; ++i) {
    std::string name = kNames[i % kNameCount];
    if (i >= kNameCount) name += std::to_string(i / kNameCount + 1);
    std::string lower = name;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::string identifier = "com.example." + lower;
    const std::string container = oldRoot + "/" + uuid();

    std::vector<std::string> groups;
    if (i == kFirstGroupMember || i == kSecondGroupMember) groups.push_back(sharedGroup);
    if (i == kSoleGroupMember) {
      soleGroup = "group." + identifier;
      groups.push_back(soleGroup);
    }
    for (const std::string& g : groups) groupMembers[g].push_back(identifier);

    const bool builtInCopy = i == kOlderCopyOfBuiltIn;
    if (!writeBundle(container + "/" + name + ".app", identifier, name, "1.0", groups)) return fail();
    if (builtInCopy &&
        !writeBundle("Applications/" + name + ".app", identifier, name, "19.1", {})) {
      return fail();
    }
    if (i == kAppWithVPNPlugin) {
      PlistDictionary info{{"KBBundleIdentifier", PlistValue(identifier + ".tunnel")},
                           {"KBBundleDisplayName", PlistValue(name + " Tunnel")},
                           {"KBBundleExecutable", PlistValue("Tunnel")},
                           {"KBBundleVersion", PlistValue("1.0")}};
      if (!writePlist(container + "/Tunnel.vpnplugin/Info.plist", info) ||
          !write(container + "/Tunnel.vpnplugin/Tunnel", bytes(2048), 0755)) {
        return fail();
      }
    }
    if (!writeStoreMetadata(container, identifier, name, i % 3 == 0)) return fail();
    json files = json::array();
    if (!writeData(container, identifier, &files)) return fail();
    if (i == kAppWithHarbor) harborIdentifier = identifier;
    manifest["apps"].push_back(json{{"identifier", identifier},
                                    {"name", name},
                                    {"container", fs::path(container).filename().string()},
                                    {"builtIn", builtInCopy},
                                    {"vpnPlugin", i == kAppWithVPNPlugin ? json(identifier + ".tunnel") : json()},
                                    {"groups", groups},
                                    {"files", files}});
  }

  // The old install map records each group's container by its device path.
  PlistDictionary groupContainers;
  for (const auto& [group, members] : groupMembers) {
    const std::string devicePath = "/private/var/mobile/Containers/Shared/AppGroup/" + uuid();
    const std::string relative = devicePath.substr(1);
    json files = json::array();
    for (const std::string& name : {std::string("shared.db"), std::string("Library/Caches/feed.json")}) {
      if (!write(relative + "/" + name, bytes(1024 + rng_() % 8192))) return fail();
      files.push_back(recordFile(path(relative + "/" + name), name));
    }
    groupContainers[group] = PlistValue(PlistDictionary{{"Container", PlistValue(devicePath)}});
    manifest["groups"].push_back(json{{"identifier", group}, {"members", members}, {"files", files}});
  }
  if (!writePlist("private/var/mobile/Library/Caches/com.tarsel.velotrix.plist",
                  PlistDictionary{{"GroupContainers", PlistValue(groupContainers)},
                                  {"System", PlistValue(PlistDictionary{})}})) {
    return fail();
  }

  if (!harborIdentifier.empty()) {
    const std::string harbor = "/private/var/mobile/Library/Velotrix/Harbors/" + harborIdentifier;
    if (!write(harbor.substr(1) + "/Documents/saved.txt", bytes(512)) ||
        !writePlist("private/var/mobile/Library/Velotrix/SafeHarbor.plist",
                    PlistDictionary{{harborIdentifier,
                                     PlistValue(PlistDictionary{{"HarborPathKey", PlistValue(harbor)}})}})) {
      return fail();
    }
  }

  std::ofstream out(path(kManifestName), std::fstream::trunc);
  out << manifest.dump(1) << "\n";
  if (!out) {
    error_ = "cannot write " + path(kManifestName);
    return fail();
  }
  return true;
}

}  // namespace

bool WriteSampleDevice(const std::string& root, const SampleDeviceOptions& options,
                       std::string* problem) {
  std::error_code ec;
  fs::create_directories(root, ec);
  if (ec) {
    if (problem) *problem = "cannot create " + root + ": " + ec.message();
    return false;
  }
  if (options.apps < 0) {
    if (problem) *problem = "the number of applications cannot be negative";
    return false;
  }
  return Generator(fs::canonical(root).string(), options).run(problem);
}

}  // namespace vx::sample
