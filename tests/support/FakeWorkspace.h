// An application workspace for the plug-in's tests. While it lives it is the default
// workspace: it answers from what the test put in it, records every installation (and, like
// the platform's, consumes the package of a successful one).
#pragma once

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/workspace/AppWorkspace.h"

namespace vx::test {

class FakeWorkspace : public AppWorkspace {
 public:
  struct Install {
    FileURL location;
    PlistDictionary options;
    std::vector<std::string> entries;  // below `location` when asked, sorted
    std::optional<PlistDictionary> infoPlist;  // `location`/Info.plist
  };
  // How one installation goes: the reports it sends, then its result.
  struct Outcome {
    std::vector<InstallProgressReport> reports;
    bool succeeds = true;
  };

  FakeWorkspace() : previous_(setDefaultWorkspaceForTesting(this)) {}
  ~FakeWorkspace() override { setDefaultWorkspaceForTesting(previous_); }

  // A "User" proxy whose data container `dataContainer` is made now.
  BundleProxy& addApplication(const std::string& identifier, const std::string& dataContainer,
                              std::map<std::string, FileURL> groups = {});

  bool applicationIsInstalled(const std::string& identifier) override;
  std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier) override;
  bool installApplication(const FileURL& location, const PlistDictionary& options,
                          ErrorRef* error, const InstallProgressCallback& progress) override;
  using AppWorkspace::installApplication;

  std::set<std::string> installed;
  std::map<std::string, BundleProxy> proxies;
  std::deque<Outcome> outcomes;  // one per installation; none left: success
  std::vector<Install> installs;

 private:
  AppWorkspace* previous_;
};

}  // namespace vx::test
