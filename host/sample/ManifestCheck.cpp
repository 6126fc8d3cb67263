#include "host/sample/ManifestCheck.h"

#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "filemanager/VXFileManager.h"
#include "host/sample/SampleDevice.h"
#include "platform/workspace/Workspace.h"
#include "support/FileDigest.h"

namespace vx::sample {
namespace {

using nlohmann::json;

constexpr const char* kVersionRecordPath =
    "/private/var/mobile/Library/Velotrix/AppMigratorLastSystemVersion.plist";
constexpr int32_t kDataContainerClass = 4;

// Compares one recorded file with what lies at `location`; returns a problem or "".
std::string CheckFile(const json& file, const FileURL& directory, uint64_t* bytes) {
  const std::string relative = file.at("path").get<std::string>();
  const FileURL location = directory.URLByAppendingPathComponent(relative);
  struct stat st {};
  if (::lstat(location.fileSystemRepresentation(), &st) != 0) return relative + " is missing";
  if (static_cast<uint64_t>(st.st_size) != file.at("size").get<uint64_t>()) {
    return relative + " has " + std::to_string(st.st_size) + " bytes, expected " +
           std::to_string(file.at("size").get<uint64_t>());
  }
  if (VXCreateSHA256Digest(location).value_or("") != file.at("sha256").get<std::string>()) {
    return relative + " differs in content";
  }
  *bytes += static_cast<uint64_t>(st.st_size);
  return "";
}

}  // namespace

ManifestReport CheckMigratedDevice(const std::string& root) {
  ManifestReport report;
  std::ifstream in(root + "/" + kManifestName);
  json manifest = json::parse(in, nullptr, false);
  if (manifest.is_discarded()) {
    report.problems.push_back("no readable " + std::string(kManifestName) + " in " + root);
    return report;
  }
  DeviceWorkspace workspace(root);
  // A run that recorded the system version has given every data container its protection
  // class, durably: the record says the run is done.
  struct stat versionRecord {};
  const bool runDone = ::lstat((root + kVersionRecordPath).c_str(), &versionRecord) == 0;
  for (const json& app : manifest.at("apps")) {
    const std::string identifier = app.at("identifier").get<std::string>();
    ++report.applications;
    report.files += app.at("files").size();
    ApplicationResult& result = report.perApplication.emplace_back();
    result.identifier = identifier;
    result.files = app.at("files").size();
    auto proxy = workspace.existingBundleProxy(identifier);
    if (proxy) result.kind = proxy->bundleType;
    if (!proxy) {
      report.problems.push_back(identifier + ": not installed");
      continue;
    }
    if (proxy->bundleType == "Placeholder" || !proxy->foundBackingBundle) {
      report.placeholdersOnly.push_back(identifier);
    } else {
      ++report.applicationsInstalled;
    }
    if (app.contains("vpnPlugin") && app.at("vpnPlugin").is_string() &&
        !workspace.applicationIsInstalled(app.at("vpnPlugin").get<std::string>())) {
      report.problems.push_back(identifier + ": its VPN plug-in is not installed");
    }
    if (!proxy->dataContainerURL) {
      report.problems.push_back(identifier + ": no data container");
      continue;
    }
    int32_t protectionClass = 0;
    if (runDone && (!VXFileManager::defaultManager().dataProtectionClassOfItemAtURL(
                        *proxy->dataContainerURL, &protectionClass, nullptr) ||
                    protectionClass != kDataContainerClass)) {
      report.problems.push_back(identifier + ": data container has protection class " +
                                std::to_string(protectionClass) + " after a finished run");
    }
    for (const json& file : app.at("files")) {
      std::string problem = CheckFile(file, *proxy->dataContainerURL, &result.bytesVerified);
      if (problem.empty()) {
        ++report.filesVerified;
        ++result.filesVerified;
      } else {
        report.problems.push_back(identifier + ": " + problem);
      }
    }
  }
  for (const ApplicationResult& result : report.perApplication) {
    report.bytesVerified += result.bytesVerified;
  }
  for (const json& group : manifest.at("groups")) {
    const std::string identifier = group.at("identifier").get<std::string>();
    report.files += group.at("files").size();
    // Every member must see the one container that holds the group's files.
    std::optional<FileURL> container;
    for (const json& member : group.at("members")) {
      auto proxy = workspace.existingBundleProxy(member.get<std::string>());
      const FileURL* location = nullptr;
      if (proxy && proxy->groupContainerURLs) {
        auto it = proxy->groupContainerURLs->find(identifier);
        if (it != proxy->groupContainerURLs->end()) location = &it->second;
      }
      if (!location) {
        report.problems.push_back(identifier + ": no group container for " + member.get<std::string>());
      } else if (container && !(*container == *location)) {
        report.problems.push_back(identifier + ": members see different group containers");
      } else {
        container = *location;
      }
    }
    if (!container) continue;
    for (const json& file : group.at("files")) {
      std::string problem = CheckFile(file, *container, &report.bytesVerified);
      if (problem.empty()) {
        ++report.filesVerified;
      } else {
        report.problems.push_back(identifier + ": " + problem);
      }
    }
  }
  return report;
}

}  // namespace vx::sample
