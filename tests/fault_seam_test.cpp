// The fault seam that crash-safety tests and the host's VX_FAULT_* variables rely on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "platform/Fault.h"
#include "platform/Sys.h"
#include "platform/UniqueFd.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using test::Exists;

class FaultSeamTest : public ::testing::Test {
 protected:
  void TearDown() override {
    fault::Disarm();
    for (const char* name : {"VX_FAULT_AT", "VX_FAULT_ACTION", "VX_FAULT_ERRNO"}) ::unsetenv(name);
  }

  // mkdir of <temp>/<name>: 0 or the errno.
  int Make(const std::string& name) {
    return sys::Mkdir((t / name).c_str(), 0755) == 0 ? 0 : errno;
  }

  void SetEnvironment(const char* at, const char* action, const char* error) {
    for (auto [name, value] : {std::pair{"VX_FAULT_AT", at}, {"VX_FAULT_ACTION", action}, {"VX_FAULT_ERRNO", error}}) {
      value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
  }

  test::TempDir t;
};

TEST_F(FaultSeamTest, FailsExactlyTheNthMutationAndCountsOnlyMutations) {
  test::WriteFile(t / "existing", "x");
  fault::Arm(3, fault::Action::Fail, ENOSPC);
  EXPECT_TRUE(UniqueFd(sys::Open((t / "existing").c_str(), O_RDONLY)));
  EXPECT_EQ(fault::MutationCount(), 0u) << "a read-only open changes nothing";
  EXPECT_EQ(Make("d1") + Make("d2"), 0);
  EXPECT_EQ(Make("d3"), ENOSPC);
  EXPECT_FALSE(Exists(t / "d3")) << "the refused call never reached the system";
  EXPECT_EQ(Make("d4"), 0);
  EXPECT_TRUE(UniqueFd(sys::Open((t / "new").c_str(), O_WRONLY | O_CREAT, 0644)));
  EXPECT_EQ(fault::MutationCount(), 5u);
  fault::Disarm();
  EXPECT_EQ(fault::MutationCount(), 0u);
}

TEST_F(FaultSeamTest, ConfigureFromEnvironmentArmsOrNamesTheProblem) {
  const char* problem = nullptr;
  EXPECT_TRUE(fault::ConfigureFromEnvironment(&problem)) << "nothing set arms nothing";
  EXPECT_EQ(Make("unarmed"), 0);

  const struct {
    const char* action;
    const char* error;
    int expected;
  } armed[] = {{nullptr, nullptr, EIO}, {"fail", "EACCES", EACCES}, {nullptr, "28", ENOSPC}};
  for (const auto& c : armed) {
    SetEnvironment("2", c.action, c.error);
    ASSERT_TRUE(fault::ConfigureFromEnvironment(&problem)) << problem;
    const std::string tag = std::to_string(c.expected);
    EXPECT_EQ(Make(tag + "-1"), 0);
    EXPECT_EQ(Make(tag + "-2"), c.expected);
    EXPECT_EQ(Make(tag + "-3"), 0);
  }

  fault::Disarm();
  const struct {
    const char* at;
    const char* action;
    const char* error;
    const char* blamed;
  } malformed[] = {{"abc", nullptr, nullptr, "VX_FAULT_AT"},      {"0", nullptr, nullptr, "VX_FAULT_AT"},
                   {"3x", nullptr, nullptr, "VX_FAULT_AT"},       {"-1", nullptr, nullptr, "VX_FAULT_AT"},
                   {"1", "explode", nullptr, "VX_FAULT_ACTION"},  {"1", nullptr, "EWHAT", "VX_FAULT_ERRNO"},
                   {"1", nullptr, "-5", "VX_FAULT_ERRNO"}};
  for (const auto& b : malformed) {
    SetEnvironment(b.at, b.action, b.error);
    problem = nullptr;
    EXPECT_FALSE(fault::ConfigureFromEnvironment(&problem)) << b.at;
    EXPECT_NE(std::string(problem ? problem : "").find(b.blamed), std::string::npos) << b.blamed;
  }
  EXPECT_EQ(Make("after-bad"), 0) << "a rejected setting arms nothing";
}

TEST_F(FaultSeamTest, CrashEndsTheProcessBeforeTheNthMutationTakesEffect) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    fault::Arm(3, fault::Action::Crash, 0);
    for (const char* name : {"c1", "c2", "c3", "c4"}) Make(name);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the child ran to its end";
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  EXPECT_TRUE(Exists(t / "c1") && Exists(t / "c2"));
  EXPECT_FALSE(Exists(t / "c3") || Exists(t / "c4"));
}

}  // namespace
}  // namespace vx
