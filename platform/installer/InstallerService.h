// platform/installer: the device's installer service, as far as the migration calls it.
// Stands above the workspace; uses it, configuration/, filemanager/ and the lower platform
// services.
//
// The installer service's functions that the migration calls.
#pragma once

#include "support/types/PlistValue.h"

namespace vx {

// Option of the data-protection update: also the built-in applications' data containers.
extern const char* const kVXUpdateSystemAppDataContainerDataProtection;

// Records a safe harbor (path, identifier, container type) in the service's register under
// the installer data directory. Non-zero on success; zero when the path is not an existing
// directory or the register cannot be written.
int VelotrixRegisterSafeHarborForContainerType(const char* path, const char* identifier,
                                               int containerType, const void* reserved);

// Sets the data-protection class of the data containers the options name to class 4.
// True on success; false when one class could not be set.
bool VelotrixUpdateContainerDataProtectionForMigratorOnly(const PlistDictionary& options);

}  // namespace vx
