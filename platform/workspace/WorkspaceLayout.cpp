#include "platform/workspace/WorkspaceLayout.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/files/AtomicFile.h"
#include "platform/files/DirChain.h"
#include "platform/files/DirectoryStream.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/plist/PlistFile.h"
#include "platform/workspace/WorkspaceLock.h"
#include "support/errors/ErrorMakers.h"

namespace vx {

const char* const kContainerRecordFileName = ".com.tarsel.velotrix.container.plist";
const char* const kPackageDirectoryName = ".package";

namespace {

// A record is a few hundred bytes; this leaves room for any number of groups.
constexpr size_t kMaxRecordSize = size_t{1} << 20;
constexpr const char* kAssemblyPrefix = ".assembling-";
constexpr const char* kRetiredPrefix = ".retired-";

const char* ClassName(ContainerClass containerClass) {
  switch (containerClass) {
    case ContainerClass::Bundle:
      return "Bundle";
    case ContainerClass::Data:
      return "Data";
    case ContainerClass::PluginData:
      return "PluginData";
    case ContainerClass::Group:
      return "Group";
  }
  return "Bundle";
}

std::optional<ContainerClass> ClassNamed(const std::string& name) {
  for (ContainerClass c : {ContainerClass::Bundle, ContainerClass::Data, ContainerClass::PluginData,
                           ContainerClass::Group}) {
    if (name == ClassName(c)) return c;
  }
  return std::nullopt;
}

const char* ClassDirectoryName(ContainerClass containerClass) {
  switch (containerClass) {
    case ContainerClass::Bundle:
      return "Bundles";
    case ContainerClass::Data:
      return "Data";
    case ContainerClass::PluginData:
      return "PluginData";
    case ContainerClass::Group:
      return "Groups";
  }
  return "Bundles";
}

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

PlistDictionary ContainerRecordDictionary(const ContainerRecord& record) {
  PlistDictionary dict{{"Identifier", record.identifier},
                       {"ContainerClass", ClassName(record.containerClass)}};
  if (record.containerClass == ContainerClass::Bundle) {
    dict["BundleName"] = record.bundleName;
    dict["BundleType"] = record.bundleType;
    dict["InstallSequence"] = static_cast<long long>(record.installSequence);
    if (record.bundleVersion) dict["BundleVersion"] = *record.bundleVersion;
    if (record.installType) dict["InstallType"] = static_cast<long long>(*record.installType);
    PlistArray groups;
    for (const auto& group : record.appGroups) groups.emplace_back(group);
    dict["AppGroups"] = std::move(groups);
    if (record.migrationOrigin) dict["MigrationOrigin"] = *record.migrationOrigin;
  }
  return dict;
}

std::optional<ContainerRecord> ContainerRecordFromDictionary(const PlistDictionary& dict) {
  const PlistValue whole(dict);
  const std::string* identifier = whole.stringForKey("Identifier");
  const std::string* className = whole.stringForKey("ContainerClass");
  if (!identifier || identifier->empty() || !className) return std::nullopt;
  const auto containerClass = ClassNamed(*className);
  if (!containerClass) return std::nullopt;

  ContainerRecord record;
  record.containerClass = *containerClass;
  record.identifier = *identifier;
  if (record.containerClass != ContainerClass::Bundle) return record;

  const std::string* bundleName = whole.stringForKey("BundleName");
  const std::string* bundleType = whole.stringForKey("BundleType");
  const PlistValue* sequence = whole.find("InstallSequence");
  if (!bundleName || bundleName->empty() || bundleName->find('/') != std::string::npos ||
      !bundleType || !sequence || !sequence->isInteger()) {
    return std::nullopt;
  }
  record.bundleName = *bundleName;
  record.bundleType = *bundleType;
  record.installSequence = *sequence->int64Value();
  if (const std::string* version = whole.stringForKey("BundleVersion")) {
    record.bundleVersion = *version;
  }
  if (const PlistValue* type = whole.find("InstallType"); type && type->isInteger()) {
    record.installType = static_cast<uint64_t>(*type->int64Value());
  }
  if (const PlistValue* origin = whole.find("MigrationOrigin"); origin && origin->dictionary()) {
    record.migrationOrigin = *origin->dictionary();
  }
  if (const PlistValue* groups = whole.find("AppGroups"); groups && groups->array()) {
    for (const auto& group : *groups->array()) {
      if (group.string()) record.appGroups.push_back(*group.string());
    }
  }
  return record;
}

WorkspaceLayout::WorkspaceLayout(const std::string& deviceRoot)
    : root_(FileURL::fileURLWithPath(deviceRoot.empty() ? "/" : deviceRoot, true).path()) {
  if (root_.back() != '/') root_ += '/';
}

FileURL WorkspaceLayout::containersDirectory() const {
  return FileURL::fileURLWithPath(root_ + "private/var/mobile/Containers", true);
}

FileURL WorkspaceLayout::directoryForClass(ContainerClass containerClass) const {
  return containersDirectory().URLByAppendingPathComponent(ClassDirectoryName(containerClass),
                                                           true);
}

FileURL WorkspaceLayout::recordURL(const FileURL& container) {
  return container.URLByAppendingPathComponent(kContainerRecordFileName);
}

std::optional<ContainerRecord> WorkspaceLayout::readRecord(const FileURL& container, int* error) {
  // The container is its application's to write: what stands at the record's name may be a
  // link, a FIFO or a sparse file of any stated size. The class directory holding the
  // container is ours, so only the last name needs refusing to follow.
  int e = 0;
  auto bytes = ReadRegularFileAt(AT_FDCWD, recordURL(container).fileSystemRepresentation(),
                                 kMaxRecordSize, &e);
  std::optional<PlistValue> value;
  if (bytes) value = ParsePropertyList(*bytes);
  if (value && value->isDictionary()) {
    if (auto record = ContainerRecordFromDictionary(*value->mutableDictionary())) return record;
  }
  if (error) *error = bytes ? EINVAL : e;
  return std::nullopt;
}

bool WorkspaceLayout::writeRecord(const FileURL& container, const ContainerRecord& record,
                                  ErrorRef* error) {
  const FileURL url = recordURL(container);
  int e = 0;
  if (!WritePropertyListFile(url.path(), PlistValue(ContainerRecordDictionary(record)),
                             PlistFormat::XML, &e)) {
    SetError(error,
             PosixError("-[WorkspaceLayout writeRecord:toContainer:error:]", __LINE__, e,
                        "Failed to write container record %s: %s", url.path(), std::strerror(e)));
    return false;
  }
  return true;
}

UniqueFd WorkspaceLayout::writeRecordIntoAssembly(const FileURL& assembly,
                                                  const ContainerRecord& record, ErrorRef* error) {
  const FileURL url = recordURL(assembly);
  const std::vector<uint8_t> bytes =
      SerializePropertyList(PlistValue(ContainerRecordDictionary(record)), PlistFormat::XML);
  UniqueFd fd(sys::Open(url.fileSystemRepresentation(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd || !sys::WriteAll(fd.get(), bytes.data(), bytes.size())) {
    const int e = errno;
    SetError(error,
             PosixError("-[WorkspaceLayout writeRecord:toContainer:error:]", __LINE__, e,
                        "Failed to write container record %s: %s", url.path(), std::strerror(e)));
    return UniqueFd();
  }
  return fd;
}

std::string NewContainerUUID() {
  std::array<uint8_t, 16> bytes{};
  size_t filled = 0;
  while (filled < bytes.size()) {
    ssize_t n = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // No kernel randomness: fall back to the urandom device, which never blocks.
      UniqueFd fd(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
      while (fd && filled < bytes.size()) {
        ssize_t r = ::read(fd.get(), bytes.data() + filled, bytes.size() - filled);
        if (r <= 0) break;
        filled += static_cast<size_t>(r);
      }
      break;
    }
    filled += static_cast<size_t>(n);
  }
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
  char text[37];
  std::snprintf(text, sizeof text,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes[0],
                bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
  return text;
}

std::string NewAssemblyName() {
  return kAssemblyPrefix + std::to_string(::getpid()) + "-" + NewContainerUUID();
}

std::string NewRetiredName() { return kRetiredPrefix + NewContainerUUID(); }

bool IsWorkspaceReservedName(const std::string& name) {
  return name == kContainerRecordFileName || name == kWorkspaceStampFileName ||
         name == kPackageDirectoryName;
}

bool IsHiddenContainerName(const std::string& name) { return !name.empty() && name[0] == '.'; }

bool IsAssemblyName(const std::string& name) { return StartsWith(name, kAssemblyPrefix); }

bool IsAbandonedHiddenName(const std::string& name) {
  if (StartsWith(name, kRetiredPrefix)) return true;
  if (!StartsWith(name, kAssemblyPrefix)) return false;
  const std::string rest = name.substr(std::strlen(kAssemblyPrefix));
  char* end = nullptr;
  const long pid = std::strtol(rest.c_str(), &end, 10);
  if (end == rest.c_str() || *end != '-' || pid <= 0) return true;
  if (pid == ::getpid()) return true;
  return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

std::vector<std::string> SortedEntryNames(const FileURL& directory) {
  std::vector<std::string> names;
  DirectoryStream dir(UniqueFd(::open(directory.fileSystemRepresentation(),
                                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
  DirentRecord entry;
  while (dir.Next(&entry)) names.emplace_back(entry.name);
  std::sort(names.begin(), names.end());
  return names;
}

bool MakeDurableDirectory(const FileURL& directory, mode_t mode, ErrorRef* error) {
  const int result = dirchain(directory.fileSystemRepresentation(), mode, DirChainSync::Durable);
  if (result == 0 || result == EEXIST) return true;
  SetError(error, PosixError("MakeDurableDirectory", __LINE__, result,
                             "Failed to create directory %s: %s", directory.path(),
                             std::strerror(result)));
  return false;
}

bool SyncDirectory(const FileURL& directory, ErrorRef* error) {
  UniqueFd fd(::open(directory.fileSystemRepresentation(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd || sys::Fsync(fd.get()) != 0) {
    const int e = errno;
    SetError(error, PosixError("SyncDirectory", __LINE__, e, "Failed to sync directory %s: %s",
                               directory.path(), std::strerror(e)));
    return false;
  }
  return true;
}

}  // namespace vx
