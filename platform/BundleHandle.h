// An opened bundle directory. Each open reads the bundle afresh (no cache), so what it
// gives is the current content of its files.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "support/FileURL.h"
#include "support/PlistValue.h"

namespace vx {

// The information dictionary's entry that the platform adds: the location of "Info.plist".
extern const char* const kKBBundleInfoPlistURLKey;  // "KBBundleInfoPlistURL"
extern const char* const kKBBundleIdentifierKey;    // "KBBundleIdentifier"

class BundleHandle {
 public:
  // Nothing when `bundle` is not a directory with a readable "Info.plist" dictionary.
  static std::unique_ptr<BundleHandle> open(const FileURL& bundle);

  const FileURL& bundleURL() const { return bundleURL_; }
  // The whole information dictionary, including "KBBundleInfoPlistURL".
  const PlistDictionary* infoDictionary() const { return &info_; }
  std::optional<std::string> bundleIdentifier() const;
  // A new value holding only the entries whose keys are in `keys`; the value's type is
  // whatever the file's top level holds. Nothing when the file cannot be read.
  std::optional<PlistValue> filteredInfoPlist(const std::set<std::string>& keys) const;

 private:
  BundleHandle(FileURL bundleURL, PlistDictionary info)
      : bundleURL_(std::move(bundleURL)), info_(std::move(info)) {}
  FileURL bundleURL_;
  PlistDictionary info_;
};

// The printed form: the bundle's path, as "BundleHandle <path>".
std::string Describe(const BundleHandle& bundle);

}  // namespace vx
