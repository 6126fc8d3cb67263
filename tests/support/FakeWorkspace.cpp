#include "support/FakeWorkspace.h"

#include <algorithm>
#include <filesystem>

#include "platform/plist/PlistFile.h"
#include "support/TempDir.h"

namespace vx::test {

BundleProxy& FakeWorkspace::addApplication(const std::string& identifier,
                                           const std::string& dataContainer,
                                           std::map<std::string, FileURL> groups) {
  MakeDirs(dataContainer);
  return proxies[identifier] = BundleProxy{identifier, "User", "1.0", std::nullopt, std::nullopt,
                                           FileURL::fileURLWithPath(dataContainer, true),
                                           std::move(groups), true};
}

bool FakeWorkspace::applicationIsInstalled(const std::string& identifier) {
  return installed.count(identifier) > 0;
}

std::optional<BundleProxy> FakeWorkspace::bundleProxyForIdentifier(const std::string& identifier) {
  auto it = proxies.find(identifier);
  return it == proxies.end() ? std::nullopt : std::optional<BundleProxy>(it->second);
}

bool FakeWorkspace::installApplication(const FileURL& location, const PlistDictionary& options,
                                       ErrorRef* error, const InstallProgressCallback& progress) {
  namespace fs = std::filesystem;
  Install call{location, options, {}, ReadPropertyListDictionary(location.path() + "/Info.plist")};
  std::error_code ec;
  for (fs::recursive_directory_iterator it(location.path(), ec), end; !ec && it != end;
       it.increment(ec)) {
    call.entries.push_back(fs::relative(it->path(), location.path()).string());
  }
  std::sort(call.entries.begin(), call.entries.end());
  installs.push_back(std::move(call));

  Outcome outcome;
  if (!outcomes.empty()) {
    outcome = std::move(outcomes.front());
    outcomes.pop_front();
  }
  for (const InstallProgressReport& report : outcome.reports) {
    if (progress) progress(report);
  }
  if (outcome.succeeds) {
    fs::remove_all(location.path(), ec);
  } else if (error) {
    *error = std::make_shared<InstallerError>(
        VXInstallerErrorDomain, 106, PlistDictionary{{VXLocalizedDescriptionKey, "refused"}});
  }
  return outcome.succeeds;
}

}  // namespace vx::test
