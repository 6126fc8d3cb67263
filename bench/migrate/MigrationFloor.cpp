// The floor a migration is measured against: per old container only what the new layout
// needs, with no checks, no logs and no recovery. It writes the marker, makes a data
// container and a bundle container each with a small record file, renames the data items
// into the one and the bundles and the store metadata into the other, and removes the
// emptied container, with an fsync of every file it writes and of every directory it
// changes (nine per container). Nothing of the system under test is linked in.
//
//   vx_migration_floor DEVICE_ROOT
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* const kMetadataNames[] = {"LyrandMetadata.plist", "Manifest.plist", "LyrandArtwork",
                                      "GeoJSON"};
constexpr const char* kMarkerName = "com.tarsel.velotrix.container_migrator.plist";

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "vx_migration_floor: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

void SyncPath(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || ::fsync(fd) != 0) Die("sync " + path);
  ::close(fd);
}

void WriteSynced(const std::string& path, const std::string& content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 ||
      ::write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
      ::fsync(fd) != 0) {
    Die("write " + path);
  }
  ::close(fd);
}

std::vector<std::string> Entries(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(path.c_str());
  if (!dir) Die("list " + path);
  while (const dirent* entry = ::readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") && std::strcmp(entry->d_name, "..")) {
      names.emplace_back(entry->d_name);
    }
  }
  ::closedir(dir);
  return names;
}

bool EndsWith(const std::string& s, const char* suffix) {
  const size_t n = std::strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

bool IsMetadata(const std::string& name) {
  for (const char* m : kMetadataNames) {
    if (name == m) return true;
  }
  return false;
}

// A new container with its record, synced (one fsync).
std::string MakeContainer(const std::string& parent, unsigned long serial,
                          const std::string& record) {
  char name[32];
  std::snprintf(name, sizeof name, "%016lX", serial);
  const std::string container = parent + "/" + name;
  if (::mkdir(container.c_str(), 0755) != 0) Die("mkdir " + container);
  WriteSynced(container + "/.record.plist", record);
  return container;
}

void Move(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) Die("rename " + from);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: vx_migration_floor DEVICE_ROOT\n");
    return 2;
  }
  const std::string root = argv[1];
  const std::string old = root + "/private/var/mobile/Applications";
  const std::string containers = root + "/private/var/mobile/Containers";
  const std::string data = containers + "/Data";
  const std::string bundles = containers + "/Bundles";
  for (const std::string& dir : {containers, data, bundles}) {
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) Die("mkdir " + dir);
  }

  unsigned long serial = static_cast<unsigned long>(::getpid()) << 32;
  for (const std::string& entry : Entries(old)) {
    const std::string container = old + "/" + entry;
    struct stat st {};
    if (::lstat(container.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;

    WriteSynced(container + "/" + kMarkerName, "<plist><dict><key>ContainerPath</key><string>" +
                                                   container + "</string></dict></plist>\n");
    SyncPath(container);

    std::vector<std::string> bundleItems, dataItems;
    for (const std::string& name : Entries(container)) {
      if (name == kMarkerName) continue;
      if (EndsWith(name, ".app") || EndsWith(name, ".vpnplugin") || IsMetadata(name)) {
        bundleItems.push_back(name);
      } else {
        dataItems.push_back(name);
      }
    }
    const std::string dataContainer =
        MakeContainer(data, ++serial, "<plist>" + entry + "</plist>\n");
    for (const std::string& name : dataItems)
      Move(container + "/" + name, dataContainer + "/" + name);
    SyncPath(dataContainer);
    SyncPath(data);

    const std::string bundleContainer =
        MakeContainer(bundles, ++serial, "<plist>" + entry + "</plist>\n");
    for (const std::string& name : bundleItems) {
      Move(container + "/" + name, bundleContainer + "/" + name);
    }
    SyncPath(bundleContainer);
    SyncPath(bundles);

    if (::unlink((container + "/" + kMarkerName).c_str()) != 0 || ::rmdir(container.c_str()) != 0) {
      Die("remove " + container);
    }
    SyncPath(old);
  }
  return 0;
}
