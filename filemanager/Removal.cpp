#include <cerrno>
#include <cstring>

#include "filemanager/VXFileManager.h"
#include "platform/files/PurgeTree.h"
#include "platform/log/InstallerLog.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kRemoveFunction = "-[VXFileManager removeItemAtURL:error:]";

// Records the first failure and lets the remover go on, so that one item that cannot be
// removed never keeps the rest of the tree in place.
PurgeTreeDecision _purgetree_error_callback(PurgeTreeState* state, const char* path,
                                            void* context) {
  int error = 0;
  if (purgetree_state_get_error(state, &error) != 0) {
    VX_INSTALLER_LOG(3, "_purgetree_error_callback",
                     "purgetree hit error for %s but we failed to get the error number", path);
    error = ENOENT;
  } else if (error != ENOENT) {
    VX_INSTALLER_LOG(3, "_purgetree_error_callback", "purgetree hit error for %s : %s", path,
                     std::strerror(error));
  }
  auto* slot = static_cast<int*>(context);
  if (slot && *slot == 0) *slot = error;
  return PurgeTreeDecision::Proceed;
}

}  // namespace

bool VXFileManager::removeItemAtURL(const std::optional<FileURL>& url, ErrorRef* error) const {
  return removeItemAtURL(url, 1, error);
}

bool VXFileManager::removeItemAtURL(const std::optional<FileURL>& url, unsigned workers,
                                    ErrorRef* error) const {
  PurgeTreeStateHandle state(purgetree_state_alloc());
  int firstError = 0;
  if (!url) {
    SetError(error, PosixError(kRemoveFunction, __LINE__, EFAULT,
                               "nil url passed to -removeItemAtURL:error:"));
    return false;
  }
  const PurgeTreeErrorCallback callback = &_purgetree_error_callback;
  if (purgetree_state_set(state.get(), PurgeTreeOption::ErrorCallback,
                          reinterpret_cast<const void*>(callback)) != 0) {
    VX_INSTALLER_LOG(3, kRemoveFunction,
                     "purgetree_state_set PURGETREE_STATE_ERROR_CALLBACK failed: %s",
                     std::strerror(errno));
  }
  if (purgetree_state_set(state.get(), PurgeTreeOption::ErrorContext, &firstError) != 0) {
    VX_INSTALLER_LOG(3, kRemoveFunction,
                     "purgetree_state_set PURGETREE_STATE_ERROR_CONTEXT failed: %s",
                     std::strerror(errno));
  }
  if (purgetree(url->fileSystemRepresentation(), state.get(), true, workers) != 0 &&
      errno != ENOENT) {
    const int e = errno;
    SetError(error, PosixError(kRemoveFunction, __LINE__, e, "purgetree of %@ failed: %s", *url,
                               std::strerror(e)));
    return false;
  }
  if (firstError != 0 && firstError != ENOENT) {
    SetError(error, PosixError(kRemoveFunction, __LINE__, firstError, "purgetree of %@ failed: %s",
                               *url, std::strerror(firstError)));
    return false;
  }
  return true;
}

}  // namespace vx
