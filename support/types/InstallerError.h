// The immutable error record that every failing operation hands out.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "support/types/PlistValue.h"

namespace vx {

class InstallerError;
// Errors are shared and never change, so a cause can be held by any number of errors.
using ErrorRef = std::shared_ptr<const InstallerError>;

// Exported constants of the error model.
extern const char* const VXInstallerErrorDomain;    // "VXInstallerErrorDomain"
extern const char* const VXFunctionNameErrorKey;    // "FunctionName"
extern const char* const VXSourceFileLineErrorKey;  // "SourceFileLine"
extern const char* const VXPathArgumentErrorKey;    // "PathArgument"
extern const char* const VXLibVXSErrorNumberKey;    // "LibVXSErrorNumber"
// "LegacyErrorString": the failure word or number a caller adds for older clients.
extern const char* const VXLegacyErrorStringKey;
// The platform's own entries: the readable message and the cause.
extern const char* const VXLocalizedDescriptionKey;  // "LocalizedDescription"
extern const char* const VXUnderlyingErrorKey;       // "UnderlyingError"
// Errors of system calls: the code is the errno value.
extern const char* const VXPOSIXErrorDomain;  // "POSIXErrorDomain"
// The platform's general domain; code 260 says that a file to be read does not exist.
extern const char* const VXPlatformErrorDomain;  // "PlatformErrorDomain"
inline constexpr int64_t kVXFileReadNoSuchFileError = 260;

class InstallerError {
 public:
  // The cause, when given, is the user info's underlying-error entry; it is kept apart
  // from the property-list entries because it is an error, not a value.
  InstallerError(std::string domain, int64_t code, PlistDictionary userInfo,
                 ErrorRef underlying = nullptr);

  const std::string& domain() const { return domain_; }
  int64_t code() const { return code_; }
  const PlistDictionary& userInfo() const { return userInfo_; }
  const ErrorRef& underlyingError() const { return underlying_; }
  // The formatted message, when the maker was given one.
  const std::string* localizedDescription() const;

  bool isPOSIX(int64_t errnoValue) const {
    return domain_ == VXPOSIXErrorDomain && code_ == errnoValue;
  }

 private:
  std::string domain_;
  int64_t code_;
  PlistDictionary userInfo_;
  ErrorRef underlying_;
};

// The printed form used by "%@":
//   Error Domain=<domain> Code=<n> "<message>" UserInfo={...; UnderlyingError = <cause>}
std::string Describe(const InstallerError& error);
// The user-info dictionary with its underlying-error entry, as it prints.
std::string DescribeUserInfo(const InstallerError& error);

// Writes `error` to the optional out-parameter; a caller that passes none drops it.
inline void SetError(ErrorRef* out, ErrorRef error) {
  if (out) *out = std::move(error);
}

}  // namespace vx
