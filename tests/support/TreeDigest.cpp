#include "support/TreeDigest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <vector>

namespace vx::test {
namespace {

std::string Attributes(const std::string& path) {
  std::vector<char> names(65536);
  const ssize_t length = ::llistxattr(path.c_str(), names.data(), names.size());
  if (length <= 0) return "";
  std::vector<std::string> lines;
  for (const char* name = names.data(); name < names.data() + length; name += strlen(name) + 1) {
    std::vector<char> value(65536);
    const ssize_t size = ::lgetxattr(path.c_str(), name, value.data(), value.size());
    lines.push_back(std::string(name) + "=" +
                    std::string(value.data(), static_cast<size_t>(std::max<ssize_t>(size, 0))));
  }
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const std::string& line : lines) out += " xattr:" + line;
  return out;
}

std::string Content(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return "unreadable";
  std::string bytes;
  char buffer[65536];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
    bytes.append(buffer, static_cast<size_t>(n));
  ::close(fd);
  return std::to_string(std::hash<std::string>{}(bytes));
}

}  // namespace

std::string TreeDigest(const std::string& root) {
  namespace fs = std::filesystem;
  std::vector<std::string> lines;
  std::vector<std::string> paths{root};
  for (const auto& entry : fs::recursive_directory_iterator(root)) paths.push_back(entry.path());
  for (const std::string& path : paths) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) continue;
    std::ostringstream line;
    line << fs::path(path).lexically_relative(root).string() << " mode=" << std::oct << st.st_mode
         << std::dec << " owner=" << st.st_uid << ":" << st.st_gid << " size=" << st.st_size
         << " mtime=" << st.st_mtim.tv_sec << "." << st.st_mtim.tv_nsec << Attributes(path);
    if (S_ISREG(st.st_mode)) line << " content=" << Content(path);
    if (S_ISLNK(st.st_mode)) line << " target=" << fs::read_symlink(path).string();
    lines.push_back(line.str());
  }
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const std::string& line : lines) out += line + "\n";
  return out;
}

FileContents ContentsOfFiles(const std::string& dir) {
  FileContents contents;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    const std::filesystem::path& path = it->path();
    const std::string extension = path.extension().string();
    if (it->is_directory(ec) && !it->is_symlink(ec) &&
        (extension == ".app" || extension == ".vpnplugin")) {
      it.disable_recursion_pending();
      continue;
    }
    if (it->is_symlink(ec) || !it->is_regular_file(ec)) continue;
    static const std::set<std::string> kNotTheUsers{
        "WhereDidMyApplicationsGo.txt", "Manifest.plist", "LyrandMetadata.plist", "LyrandArtwork"};
    if (kNotTheUsers.count(path.filename().string())) continue;
    std::ifstream in(it->path(), std::ifstream::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    ++contents[bytes.str()];
  }
  return contents;
}

std::string FirstLostContent(const FileContents& before, const FileContents& after) {
  for (const auto& [content, count] : before) {
    const auto found = after.find(content);
    if (found == after.end() || found->second < count) {
      return content.substr(0, 80) + (content.size() > 80 ? "..." : "");
    }
  }
  return "";
}

}  // namespace vx::test
