#include "support/errors/ErrorMakers.h"

#include "platform/log/InstallerLog.h"

namespace vx {

ErrorRef _CreateErrorV(const char* function, int line, const char* domain, int64_t code,
                       const char* format, std::span<const FormatArg> args) {
  PlistDictionary userInfo;
  userInfo[VXLocalizedDescriptionKey] = FormatArgs(format, args);
  userInfo[VXFunctionNameErrorKey] = function ? function : "";
  userInfo[VXSourceFileLineErrorKey] = line;
  return std::make_shared<InstallerError>(domain, code, std::move(userInfo));
}

ErrorRef _CreateAndLogErrorV(const char* function, int line, const char* domain, int64_t code,
                             ErrorRef underlying, const PlistDictionary* userInfo,
                             const char* format, std::span<const FormatArg> args) {
  PlistDictionary info = userInfo ? *userInfo : PlistDictionary{};
  if (format) {
    std::string message = FormatArgs(format, args);
    if (underlying) {
      VX_INSTALLER_LOG(3, function, "%d: %@ (%@)", line, message, *underlying);
    } else {
      VX_INSTALLER_LOG(3, function, "%d: %@", line, message);
    }
    info[VXLocalizedDescriptionKey] = std::move(message);
  }
  // The cause is the underlying-error entry; a plain value of that name must not shadow it.
  info.erase(VXUnderlyingErrorKey);
  info[VXFunctionNameErrorKey] = function ? function : "";
  info[VXSourceFileLineErrorKey] = line;
  return std::make_shared<InstallerError>(domain, code, std::move(info), std::move(underlying));
}

ErrorRef PosixCause(int errnoValue) {
  return std::make_shared<InstallerError>(VXPOSIXErrorDomain, errnoValue, PlistDictionary{});
}

}  // namespace vx
