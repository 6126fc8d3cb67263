// The uncaught-exception report, made in death-test children so that their abort ends only them.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <thread>

#include "support/CrashReport.h"

namespace vx {
namespace {

using ::testing::KilledBySignal;

constexpr char kHeader[] = "** INTERNAL ERROR: Uncaught Exception **\n";

// Appends what the annotation points at when the abort arrives, as a crash reporter would
// find it; the default action then ends the child by SIGABRT.
void ShowAnnotationOnAbort(int) {
  static const char kMark[] = "|annotation|";
  (void)!::write(2, kMark, sizeof kMark - 1);
  if (const char* message = reinterpret_cast<const char*>(VXCrashAnnotation().message)) {
    (void)!::write(2, message, std::strlen(message));
  }
}

// What the child shows: the report on standard error, then the same text in the annotation.
::testing::Matcher<const std::string&> Shows(const std::string& exceptionLine,
                                             const std::string& stack = "") {
  const std::string report = kHeader + exceptionLine + "\nStack:\n" + stack;
  return ::testing::Eq(report + "\n|annotation|" + report);
}

TEST(CrashReportTest, ReportGoesToStandardErrorAndTheAnnotationOnce) {
  EXPECT_EXIT(
      {
        ::signal(SIGABRT, ShowAnnotationOnAbort);
        ::pthread_setname_np(::pthread_self(), "vx-installer");
        VXCrashOnException({"IndexOutOfRange", "index 4 beyond bounds", {"0 first", "1 second"}});
      },
      KilledBySignal(SIGABRT), Shows("Exception: <vx-installer> IndexOutOfRange: index 4 beyond "
                                     "bounds", "0 first\n1 second"));

  // A thread that never named itself carries the process's name and counts as unnamed.
  EXPECT_EXIT(
      {
        ::signal(SIGABRT, ShowAnnotationOnAbort);
        std::thread([] { VXCrashOnException({"E", std::nullopt, {}}); }).join();
      },
      KilledBySignal(SIGABRT), Shows("Exception: E: "));
  EXPECT_EQ(VXCrashReportText({std::nullopt, "only a reason", {"frame"}}),
            std::string(kHeader) + "Exception: only a reason\nStack:\nframe");

  // Of two threads crashing at once, only one reports.
  EXPECT_EXIT(
      {
        ::signal(SIGABRT, ShowAnnotationOnAbort);
        auto crash = [] {
          ::pthread_setname_np(::pthread_self(), "crasher");
          VXCrashOnException({"E", "boom", {}});
        };
        std::thread a(crash);
        std::thread b(crash);
        a.join();
        b.join();
      },
      KilledBySignal(SIGABRT), Shows("Exception: <crasher> E: boom"));
}

// The record must be where a core-dump reader looks for it: in its own named section.
TEST(CrashReportTest, AnnotationLivesInItsOwnSection) {
  const CrashAnnotation& annotation = VXCrashAnnotation();
  EXPECT_EQ(annotation.version, 5u);
  EXPECT_EQ(annotation.message, 0u);
  for (uint64_t field : annotation.reserved) EXPECT_EQ(field, 0u);

  Dl_info info{};
  ASSERT_NE(::dladdr(&annotation, &info), 0);
  std::ifstream file(info.dli_fname, std::fstream::binary);
  auto readAt = [&file](uint64_t offset, void* into, size_t size) {
    file.seekg(static_cast<std::streamoff>(offset));
    return static_cast<bool>(
        file.read(static_cast<char*>(into), static_cast<std::streamsize>(size)));
  };
  Elf64_Ehdr header{};
  ASSERT_TRUE(readAt(0, &header, sizeof header));
  std::vector<Elf64_Shdr> sections(header.e_shnum);
  ASSERT_TRUE(readAt(header.e_shoff, sections.data(), sections.size() * sizeof(Elf64_Shdr)));
  std::string names(sections.at(header.e_shstrndx).sh_size, '\0');
  ASSERT_TRUE(readAt(sections[header.e_shstrndx].sh_offset, names.data(), names.size()));
  const auto section = std::find_if(sections.begin(), sections.end(), [&](const Elf64_Shdr& s) {
    return std::strcmp(names.c_str() + s.sh_name, "vx_crash_info") == 0;
  });
  ASSERT_NE(section, sections.end());
  const uint64_t offset =
      reinterpret_cast<uintptr_t>(&annotation) - reinterpret_cast<uintptr_t>(info.dli_fbase);
  EXPECT_GE(offset, section->sh_addr);
  EXPECT_LE(offset + sizeof(CrashAnnotation), section->sh_addr + section->sh_size);
}

}  // namespace
}  // namespace vx
