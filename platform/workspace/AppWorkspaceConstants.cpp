#include "platform/workspace/AppWorkspace.h"

namespace vx {

const char* const InstallTypeKey = "InstallType";
const char* const PackageTypeKey = "PackageType";
const char* const PackageTypeCustomer = "Customer";
const char* const PackageTypePlaceholder = "Placeholder";
const char* const StoreMetadataKey = "StoreMetadata";
const char* const MigrationOriginKey = "MigrationOrigin";

const char* const kInstallProgressPercentKey = "PercentComplete";
const char* const kInstallProgressStatusKey = "Status";
const char* const kInstallProgressErrorKey = "Error";
const char* const kInstallProgressErrorDescriptionKey = "ErrorDescription";
const char* const kInstallProgressErrorDetailKey = "ErrorDetail";
const char* const kApplicationAlreadyInstalledError = "ApplicationAlreadyInstalled";
const char* const kIdentifierTakenError = "IdentifierTaken";

}  // namespace vx
