#include "support/types/InstallerError.h"

namespace vx {

const char* const VXInstallerErrorDomain = "VXInstallerErrorDomain";
const char* const VXFunctionNameErrorKey = "FunctionName";
const char* const VXSourceFileLineErrorKey = "SourceFileLine";
const char* const VXPathArgumentErrorKey = "PathArgument";
const char* const VXLibVXSErrorNumberKey = "LibVXSErrorNumber";
const char* const VXLegacyErrorStringKey = "LegacyErrorString";
const char* const VXLocalizedDescriptionKey = "LocalizedDescription";
const char* const VXUnderlyingErrorKey = "UnderlyingError";
const char* const VXPOSIXErrorDomain = "POSIXErrorDomain";
const char* const VXPlatformErrorDomain = "PlatformErrorDomain";

InstallerError::InstallerError(std::string domain, int64_t code, PlistDictionary userInfo,
                               ErrorRef underlying)
    : domain_(std::move(domain)),
      code_(code),
      userInfo_(std::move(userInfo)),
      underlying_(std::move(underlying)) {}

const std::string* InstallerError::localizedDescription() const {
  auto it = userInfo_.find(VXLocalizedDescriptionKey);
  return it == userInfo_.end() ? nullptr : it->second.string();
}

std::string DescribeUserInfo(const InstallerError& error) {
  std::string out = Describe(error.userInfo());
  if (error.underlyingError()) {
    out.pop_back();  // the closing brace
    if (out.size() > 1) out += ' ';
    out += std::string(VXUnderlyingErrorKey) + " = " + Describe(*error.underlyingError()) + ";}";
  }
  return out;
}

std::string Describe(const InstallerError& error) {
  std::string out = "Error Domain=" + error.domain() + " Code=" + std::to_string(error.code());
  if (const std::string* message = error.localizedDescription()) out += " \"" + *message + "\"";
  return out + " UserInfo=" + DescribeUserInfo(error);
}

}  // namespace vx
