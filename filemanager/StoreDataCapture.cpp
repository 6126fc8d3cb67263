#include "filemanager/StoreDataItems.h"
#include "filemanager/VXFileManager.h"
#include "support/errors/ErrorMakers.h"

namespace vx {

bool VXFileManager::captureStoreDataFromDirectory(const FileURL& source,
                                                  const FileURL& destination, bool doCopy,
                                                  bool failureIsFatal, ErrorRef* error) const {
  for (const StoreDataItem& item : kStoreDataItems) {
    const FileURL from = source.URLByAppendingPathComponent(item.name, false);
    const FileURL to = destination.URLByAppendingPathComponent(item.name, false);
    ErrorRef cause;
    bool ok = doCopy ? copyItemIfExistsAtURL(from, to, &cause)
                     : moveItemIfExistsAtURL(from, to, &cause);
    if (ok) continue;

    const PlistDictionary userInfo{{VXLegacyErrorStringKey, PlistValue(item.failureWord)}};
    ErrorRef failure = _CreateAndLogError(
        "-[VXFileManager captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:"
        "withError:]",
        __LINE__, VXInstallerErrorDomain, 24, cause, &userInfo,
        doCopy ? "Failed to copy %@ to %@" : "Failed to move %@ to %@", from, to);
    if (failureIsFatal) {
      SetError(error, std::move(failure));
      return false;
    }
  }
  return true;
}

}  // namespace vx
