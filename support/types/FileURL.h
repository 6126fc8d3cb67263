// support/types: the shared value types (locations, property-list values, errors and their
// formatting). The bottom of the whole project: it uses only the standard library and
// libplist.
//
// An absolute file-system location, the currency of every file operation.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vx {

class FileURL {
 public:
  // A relative text is taken relative to the process's current directory.
  static FileURL fileURLWithPath(std::string_view path, bool isDirectory = false);
  // File-system bytes: on Linux the same bytes as the path text.
  static FileURL fileURLWithFileSystemRepresentation(const char* bytes, bool isDirectory = false);
  // Components as `pathComponents` yields them: component 0 of an absolute path is "/".
  static FileURL fileURLWithPathComponents(const std::vector<std::string>& components,
                                           bool isDirectory = false);

  FileURL() = default;  // the root "/", so that a default value is still a location

  // The path text, without the trailing slash that marks a directory (except for "/").
  const std::string& path() const { return path_; }
  const char* fileSystemRepresentation() const { return path_.c_str(); }
  // The location text: the path, ending with a slash for a directory location.
  std::string absoluteString() const;
  bool hasDirectoryPath() const { return isDirectory_; }

  std::string lastPathComponent() const;
  std::string pathExtension() const;
  std::vector<std::string> pathComponents() const;

  FileURL URLByAppendingPathComponent(std::string_view component, bool isDirectory) const;
  FileURL URLByAppendingPathComponent(std::string_view component) const {
    return URLByAppendingPathComponent(component, false);
  }
  FileURL URLByAppendingPathExtension(std::string_view extension) const;
  FileURL URLByDeletingLastPathComponent() const;

  friend bool operator==(const FileURL& a, const FileURL& b) {
    return a.isDirectory_ == b.isDirectory_ && a.path_ == b.path_;
  }
  friend bool operator<(const FileURL& a, const FileURL& b) {
    return a.path_ != b.path_ ? a.path_ < b.path_ : a.isDirectory_ < b.isDirectory_;
  }

 private:
  FileURL(std::string path, bool isDirectory) : path_(std::move(path)), isDirectory_(isDirectory) {}

  std::string path_ = "/";
  bool isDirectory_ = true;
};

// The printed form used by "%@": a location prints as its path.
std::string Describe(const FileURL& url);

// Splits a path text the way `pathComponents` does ("/" first for an absolute path,
// empty components and a trailing slash dropped).
std::vector<std::string> PathComponents(std::string_view path);
// Joins components; a leading "/" component makes the result absolute.
std::string PathWithComponents(const std::vector<std::string>& components);

}  // namespace vx
