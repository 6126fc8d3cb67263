#include "support/types/FileURL.h"

#include <unistd.h>

#include <climits>
#include <memory>

namespace vx {
namespace {

std::string CurrentDirectory() {
  std::unique_ptr<char, decltype(&free)> cwd(getcwd(nullptr, 0), &free);
  return cwd ? std::string(cwd.get()) : std::string("/");
}

// Collapses repeated slashes and drops a trailing one; "." and ".." stay as they are,
// because resolving them is the file system's business, not the location's.
std::string Normalize(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(c);
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  if (out.empty()) out = "/";
  return out;
}

}  // namespace

FileURL FileURL::fileURLWithPath(std::string_view path, bool isDirectory) {
  if (path.empty() || path.front() != '/') {
    std::string absolute = CurrentDirectory();
    if (!path.empty()) {
      absolute += '/';
      absolute += path;
    }
    return FileURL(Normalize(absolute), isDirectory);
  }
  return FileURL(Normalize(path), isDirectory);
}

FileURL FileURL::fileURLWithFileSystemRepresentation(const char* bytes, bool isDirectory) {
  return fileURLWithPath(bytes ? std::string_view(bytes) : std::string_view(), isDirectory);
}

FileURL FileURL::fileURLWithPathComponents(const std::vector<std::string>& components,
                                           bool isDirectory) {
  return fileURLWithPath(PathWithComponents(components), isDirectory);
}

std::string FileURL::absoluteString() const {
  if (isDirectory_ && path_ != "/") return path_ + "/";
  return path_;
}

std::string FileURL::lastPathComponent() const {
  if (path_ == "/") return "/";
  return path_.substr(path_.rfind('/') + 1);
}

std::string FileURL::pathExtension() const {
  std::string last = lastPathComponent();
  size_t dot = last.rfind('.');
  // A leading dot names a hidden file, not an extension.
  if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
  return last.substr(dot + 1);
}

std::vector<std::string> FileURL::pathComponents() const { return PathComponents(path_); }

FileURL FileURL::URLByAppendingPathComponent(std::string_view component, bool isDirectory) const {
  std::string joined = path_;
  if (joined.back() != '/') joined += '/';
  joined += component;
  return FileURL(Normalize(joined), isDirectory);
}

FileURL FileURL::URLByAppendingPathExtension(std::string_view extension) const {
  return FileURL(path_ + "." + std::string(extension), isDirectory_);
}

FileURL FileURL::URLByDeletingLastPathComponent() const {
  if (path_ == "/") return *this;
  size_t slash = path_.rfind('/');
  return FileURL(slash == 0 ? std::string("/") : path_.substr(0, slash), true);
}

std::string Describe(const FileURL& url) { return url.path(); }

std::vector<std::string> PathComponents(std::string_view path) {
  std::vector<std::string> components;
  if (!path.empty() && path.front() == '/') components.emplace_back("/");
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string_view::npos) slash = path.size();
    if (slash > start) components.emplace_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return components;
}

std::string PathWithComponents(const std::vector<std::string>& components) {
  std::string path;
  for (const std::string& component : components) {
    if (component == "/") {
      if (path.empty()) path = "/";
      continue;
    }
    if (!path.empty() && path.back() != '/') path += '/';
    path += component;
  }
  return path;
}

}  // namespace vx
