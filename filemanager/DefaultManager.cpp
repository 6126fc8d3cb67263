#include "filemanager/VXFileManager.h"

namespace vx {

VXFileManager& VXFileManager::defaultManager() {
  // A function-local static is the once-only guard; the instance is never destroyed, so
  // threads still running at exit may use it.
  static VXFileManager* instance = new VXFileManager();
  return *instance;
}

}  // namespace vx
