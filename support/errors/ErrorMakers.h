// support/errors: the error makers. Uses support/types and platform/log.
//
// The two error makers. `_CreateError` only builds an error (system-call failures, which the
// caller reports as it sees fit); `_CreateAndLogError` also writes the message to the
// installer log, because its errors end an installer operation.
#pragma once

#include <cstdint>
#include <span>

#include "support/types/Format.h"
#include "support/types/InstallerError.h"

namespace vx {

ErrorRef _CreateErrorV(const char* function, int line, const char* domain, int64_t code,
                       const char* format, std::span<const FormatArg> args);

template <typename... Args>
ErrorRef _CreateError(const char* function, int line, const char* domain, int64_t code,
                      const char* format, const Args&... args) {
  const FormatArg list[] = {MakeFormatArg(args)..., FormatArg::Null()};
  return _CreateErrorV(function, line, domain, code, format,
                       std::span<const FormatArg>(list, sizeof...(Args)));
}

// `underlying`, `userInfo` and `format` may each be absent (null).
ErrorRef _CreateAndLogErrorV(const char* function, int line, const char* domain, int64_t code,
                             ErrorRef underlying, const PlistDictionary* userInfo,
                             const char* format, std::span<const FormatArg> args);

template <typename... Args>
ErrorRef _CreateAndLogError(const char* function, int line, const char* domain, int64_t code,
                            ErrorRef underlying, const PlistDictionary* userInfo,
                            const char* format, const Args&... args) {
  const FormatArg list[] = {MakeFormatArg(args)..., FormatArg::Null()};
  return _CreateAndLogErrorV(function, line, domain, code, std::move(underlying), userInfo,
                             format, std::span<const FormatArg>(list, sizeof...(Args)));
}

// A POSIX-domain error for a failed system call; the message is not logged.
template <typename... Args>
ErrorRef PosixError(const char* function, int line, int errnoValue, const char* format,
                    const Args&... args) {
  return _CreateError(function, line, VXPOSIXErrorDomain, errnoValue, format, args...);
}

// The bare cause that `_CreateAndLogError` wraps: a POSIX error without user info.
ErrorRef PosixCause(int errnoValue);

}  // namespace vx
