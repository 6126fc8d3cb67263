// The uncaught-exception report, made in forked children so that their abort ends only them.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include "support/CrashReport.h"

namespace vx {
namespace {

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

struct ChildResult {
  int status = 0;
  std::string stderrText;
};

// Runs `body` in a child whose standard error goes into a pipe.
ChildResult RunInChild(const std::function<void()>& body) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(fds[1], 2);
    ::close(fds[0]);
    ::close(fds[1]);
    ::signal(SIGABRT, ShowAnnotationOnAbort);
    body();
    ::_exit(0);
  }
  ::close(fds[1]);
  ChildResult result;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0) result.stderrText.append(buffer, n);
  ::close(fds[0]);
  ::waitpid(pid, &result.status, 0);
  return result;
}

bool DiedByAbort(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }

TEST(CrashReportTest, NamedThreadReportAndAnnotation) {
  ChildResult child = RunInChild([] {
    ::pthread_setname_np(::pthread_self(), "vx-installer");
    VXCrashOnException({"IndexOutOfRange", "index 4 beyond bounds", {"0 first", "1 second"}});
  });
  ASSERT_TRUE(DiedByAbort(child.status)) << child.status;
  const std::string report = std::string(kHeader) +
                             "Exception: <vx-installer> IndexOutOfRange: index 4 beyond bounds\n"
                             "Stack:\n0 first\n1 second";
  EXPECT_EQ(child.stderrText, report + "\n|annotation|" + report);
}

TEST(CrashReportTest, UnnamedThreadAndMissingParts) {
  // A thread that never named itself carries the process's name and counts as unnamed.
  ChildResult child = RunInChild([] {
    std::thread([] { VXCrashOnException({"E", std::nullopt, {}}); }).join();
  });
  ASSERT_TRUE(DiedByAbort(child.status));
  const std::string report = std::string(kHeader) + "Exception: E: \nStack:\n";
  EXPECT_EQ(child.stderrText, report + "\n|annotation|" + report);

  EXPECT_EQ(VXCrashReportText({std::nullopt, "only a reason", {"frame"}}),
            std::string(kHeader) + "Exception: only a reason\nStack:\nframe");
}

TEST(CrashReportTest, ConcurrentCrashesReportOnce) {
  ChildResult child = RunInChild([] {
    auto crash = [](const char* name) {
      ::pthread_setname_np(::pthread_self(), name);
      VXCrashOnException({name, "boom", {}});
    };
    std::thread a(crash, "crash-a");
    std::thread b(crash, "crash-b");
    a.join();
    b.join();
  });
  ASSERT_TRUE(DiedByAbort(child.status));
  size_t headers = 0;
  for (size_t at = child.stderrText.find(kHeader); at != std::string::npos;
       at = child.stderrText.find(kHeader, at + 1)) {
    ++headers;
  }
  EXPECT_EQ(headers, 2u) << child.stderrText;  // the report once, and once more in the annotation
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
  const uint64_t offset =
      reinterpret_cast<uintptr_t>(&annotation) - reinterpret_cast<uintptr_t>(info.dli_fbase);
  bool found = false;
  for (const Elf64_Shdr& section : sections) {
    if (std::strcmp(names.c_str() + section.sh_name, "vx_crash_info") != 0) continue;
    found = true;
    EXPECT_GE(offset, section.sh_addr);
    EXPECT_LE(offset + sizeof(CrashAnnotation), section.sh_addr + section.sh_size);
  }
  EXPECT_TRUE(found);
}

}  // namespace
}  // namespace vx
