// The last-resort report of an exception nobody caught: it is left where a crash reporter
// finds it (the crash annotation record, kept in a section of its own so that a core dump
// carries it and a tool can find it by the section's name), written to standard error, and
// the process aborts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vx {

// What is known of the exception; name and reason may be missing.
struct ExceptionRecord {
  std::optional<std::string> name;
  std::optional<std::string> reason;
  std::vector<std::string> callStackSymbols;
};

// The record a crash reporter reads from a crashed process: eight 64-bit fields. Version 5
// from the start; `message` holds the address of the report's UTF-8 text once a report was
// made; the other fields stay 0.
struct CrashAnnotation {
  uint64_t version;
  uint64_t message;
  uint64_t reserved[6];
};
static_assert(sizeof(CrashAnnotation) == 64);

// The record, which lives in the ELF section "vx_crash_info" of the shared layer. It is
// reached through this function rather than as a variable, because a program that named the
// variable would get a copy of it (a copy relocation), and the reports would then be written
// to that copy, outside the section.
const CrashAnnotation& VXCrashAnnotation();

// The report's text. The thread counts as named when its name differs from the process's
// own: on Linux every thread has a name, and one that never set its own inherits the
// process's.
std::string VXCrashReportText(const ExceptionRecord& exception);

// Reports and aborts. Of several threads that get here at once exactly one writes the
// annotation and aborts; the others wait for ever.
[[noreturn]] void VXCrashOnException(const ExceptionRecord& exception);

}  // namespace vx
