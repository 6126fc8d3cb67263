// The fault seam that crash-safety tests and the host's VX_FAULT_* variables rely on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "platform/files/Fault.h"
#include "platform/files/Sys.h"
#include "platform/files/UniqueFd.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using test::Exists;

constexpr const char* kVariables[] = {"VX_FAULT_AT", "VX_FAULT_ACTION", "VX_FAULT_ERRNO"};

class FaultSeamTest : public ::testing::Test {
 protected:
  void TearDown() override {
    fault::Disarm();
    for (const char* name : kVariables) ::unsetenv(name);
  }

  // mkdir of <temp>/<name>: 0 or the errno.
  int Make(const std::string& name) { return sys::Mkdir((t / name).c_str(), 0755) == 0 ? 0 : errno; }

  // The three variables in order; null leaves one unset.
  void SetEnvironment(const char* at, const char* action, const char* error) {
    const char* values[] = {at, action, error};
    for (int i = 0; i < 3; ++i) values[i] ? ::setenv(kVariables[i], values[i], 1) : ::unsetenv(kVariables[i]);
  }

  test::TempDir t;
};

TEST_F(FaultSeamTest, FailsExactlyTheNthMutationAndCountsOnlyMutations) {
  test::WriteFile(t / "existing", "x");
  fault::Arm(3, fault::Action::Fail, ENOSPC);
  EXPECT_TRUE(UniqueFd(sys::Open((t / "existing").c_str(), O_RDONLY)));
  EXPECT_EQ(fault::MutationCount(), 0u) << "a read-only open changes nothing";
  EXPECT_EQ((std::vector{Make("d1"), Make("d2"), Make("d3")}), (std::vector{0, 0, ENOSPC}));
  EXPECT_FALSE(Exists(t / "d3")) << "the refused call never reached the system";
  EXPECT_TRUE(UniqueFd(sys::Open((t / "new").c_str(), O_WRONLY | O_CREAT, 0644)));
  EXPECT_EQ(fault::MutationCount(), 4u) << "the refused call counts, a creating open too";
}

TEST_F(FaultSeamTest, ConfigureFromEnvironmentArmsOrNamesTheProblem) {
  const char* problem = nullptr;
  int made = 0;
  auto makeNext = [&] { return Make(std::to_string(++made)); };
  // The action defaults to failing, the error to EIO; an error may be named or numbered.
  const struct { const char* action; const char* error; int expected; } armed[] = {
      {nullptr, nullptr, EIO}, {"fail", "EACCES", EACCES}, {nullptr, "28", ENOSPC}};
  for (const auto& c : armed) {
    SetEnvironment("2", c.action, c.error);
    ASSERT_TRUE(fault::ConfigureFromEnvironment(&problem)) << problem;
    EXPECT_EQ((std::vector{makeNext(), makeNext(), makeNext()}), (std::vector{0, c.expected, 0})) << c.error;
  }

  fault::Disarm();
  const struct { const char* at; const char* action; const char* error; const char* blamed; } malformed[] = {
      {"0", nullptr, nullptr, "VX_FAULT_AT"},       {"3x", nullptr, nullptr, "VX_FAULT_AT"},
      {"-1", nullptr, nullptr, "VX_FAULT_AT"},      {"1", "explode", nullptr, "VX_FAULT_ACTION"},
      {"1", nullptr, "EWHAT", "VX_FAULT_ERRNO"},    {"1", nullptr, "-5", "VX_FAULT_ERRNO"}};
  for (const auto& b : malformed) {
    SetEnvironment(b.at, b.action, b.error);
    problem = nullptr;
    EXPECT_FALSE(fault::ConfigureFromEnvironment(&problem)) << b.at;
    EXPECT_NE(std::string(problem ? problem : "").find(b.blamed), std::string::npos) << b.blamed;
  }
  EXPECT_EQ(makeNext(), 0) << "a rejected setting arms nothing";
}

TEST_F(FaultSeamTest, CrashEndsTheProcessBeforeTheNthMutationTakesEffect) {
  const pid_t child = ::fork();
  if (child == 0) {
    fault::Arm(3, fault::Action::Crash, 0);
    for (const char* name : {"c1", "c2", "c3", "c4"}) Make(name);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
  EXPECT_EQ((std::vector{Exists(t / "c1"), Exists(t / "c2"), Exists(t / "c3"), Exists(t / "c4")}),
            (std::vector{true, true, false, false}));
}

}  // namespace
}  // namespace vx
