#include "platform/preferences/PreferenceStore.h"

#include <fcntl.h>

#include <cerrno>
#include <mutex>

#include "platform/files/AtomicFile.h"
#include "platform/files/Beneath.h"
#include "platform/files/DirChain.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"

namespace vx::PreferenceStore {
namespace {

// A write reads, changes and replaces the whole domain file; two threads setting different
// keys at once would otherwise each replace the other's change.
std::mutex gWriteMutex;

// A domain names one file in the directory and nothing outside it.
bool IsDomainName(const std::string& domain) {
  return !domain.empty() && domain.find('/') == std::string::npos;
}

// A domain is a small dictionary; the file at its name may be anything its directory's
// writer put there, so it is read as a regular file only, never through a link, and within
// a bound.
constexpr size_t kMaxDomainSize = size_t{4} << 20;

std::optional<std::vector<uint8_t>> ReadDomainFile(const std::string& path, int* error) {
  return ReadRegularFileAt(AT_FDCWD, path.c_str(), kMaxDomainSize, error);
}

std::string DomainPath(const std::string& domain, const std::string& directory) {
  std::string path = directory;
  if (path.empty() || path.back() != '/') path += '/';
  return path + domain + ".plist";
}

// The domain's values as a write starts from them. A missing file is an empty domain, and so
// is one that holds no dictionary, since nothing can be read from it; but a file that could
// not be read at all might hold good values, so the write is refused instead.
std::optional<PlistDictionary> LoadForUpdate(const std::string& path) {
  int error = 0;
  auto bytes = ReadDomainFile(path, &error);
  if (!bytes) {
    if (error == ENOENT) return PlistDictionary{};
    return std::nullopt;
  }
  auto value = ParsePropertyList(*bytes);
  if (!value || !value->isDictionary()) return PlistDictionary{};
  return std::move(*value->mutableDictionary());
}

}  // namespace

std::string DefaultPreferencesDirectory() {
  return DeviceRoot() + "private/var/mobile/Library/Preferences";
}

std::optional<PlistValue> copyValue(const std::string& key, const std::string& domain,
                                    const std::string& directory) {
  if (!IsDomainName(domain)) return std::nullopt;
  // Read afresh every time: another process may have changed the domain since.
  auto bytes = ReadDomainFile(DomainPath(domain, directory), nullptr);
  std::optional<PlistValue> values = bytes ? ParsePropertyList(*bytes) : std::nullopt;
  if (!values || !values->isDictionary()) return std::nullopt;
  auto it = values->mutableDictionary()->find(key);
  if (it == values->mutableDictionary()->end()) return std::nullopt;
  return std::move(it->second);
}

std::optional<std::string> copyText(const std::string& key, const std::string& domain,
                                    const std::string& directory) {
  auto value = copyValue(key, domain, directory);
  if (!value || !value->isString()) return std::nullopt;
  return *value->string();
}

bool setValue(const std::string& key, const std::optional<PlistValue>& value,
              const std::string& domain, const std::string& directory) {
  if (!IsDomainName(domain)) return false;
  std::lock_guard lock(gWriteMutex);
  const std::string path = DomainPath(domain, directory);
  auto values = LoadForUpdate(path);
  if (!values) return false;
  if (value) {
    values->insert_or_assign(key, *value);
  } else if (values->erase(key) == 0) {
    return true;  // nothing to remove, nothing to write
  }
  int made = dirchain(directory.c_str(), 0755);
  if (made != 0 && made != EEXIST) return false;
  return WritePropertyListFile(path, PlistValue(std::move(*values)));
}

bool synchronize(const std::string& domain, const std::string& directory) {
  if (!IsDomainName(domain)) return false;
  // Under the writers' lock, so that a write another thread has begun is flushed too.
  std::lock_guard lock(gWriteMutex);
  UniqueFd file = OpenRegularFileAt(AT_FDCWD, DomainPath(domain, directory).c_str());
  if (!file) return errno == ENOENT;  // nothing was ever written, nothing to flush
  // Each write already replaced the file atomically, synced with its directory; this is for
  // a caller that wants that proven, and finds little left to flush.
  if (sys::Fsync(file.get()) != 0) return false;
  UniqueFd parent(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return parent && sys::Fsync(parent.get()) == 0;
}

std::optional<PlistValue> copyValue(const std::string& key, const std::string& domain) {
  return copyValue(key, domain, DefaultPreferencesDirectory());
}

bool setValue(const std::string& key, const std::optional<PlistValue>& value,
              const std::string& domain) {
  return setValue(key, value, domain, DefaultPreferencesDirectory());
}

bool synchronize(const std::string& domain) {
  return synchronize(domain, DefaultPreferencesDirectory());
}

std::optional<std::string> copyText(const std::string& key, const std::string& domain) {
  return copyText(key, domain, DefaultPreferencesDirectory());
}

}  // namespace vx::PreferenceStore
