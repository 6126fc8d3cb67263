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
using test::TempDir;

class FaultSeamTest : public ::testing::Test {
 protected:
  void TearDown() override {
    fault::Disarm();
    for (const char* name : {"VX_FAULT_AT", "VX_FAULT_ACTION", "VX_FAULT_ERRNO"}) ::unsetenv(name);
  }

  // mkdir of t/<prefix><i>: 0 or the errno.
  int MakeNumbered(const std::string& prefix, int i) {
    return sys::Mkdir((t / (prefix + std::to_string(i))).c_str(), 0755) == 0 ? 0 : errno;
  }

  TempDir t;
};

TEST_F(FaultSeamTest, FailsExactlyTheNthMutationAndCountsOnlyMutations) {
  test::WriteFile(t / "existing", "x");
  fault::Arm(3, fault::Action::Fail, ENOSPC);
  UniqueFd reader(sys::Open((t / "existing").c_str(), O_RDONLY));
  EXPECT_TRUE(reader);
  EXPECT_EQ(fault::MutationCount(), 0u) << "a read-only open changes nothing";

  EXPECT_EQ(MakeNumbered("d", 1), 0);
  EXPECT_EQ(MakeNumbered("d", 2), 0);
  EXPECT_EQ(MakeNumbered("d", 3), ENOSPC);
  EXPECT_FALSE(Exists(t / "d3")) << "the refused call never reached the system";
  EXPECT_EQ(MakeNumbered("d", 4), 0);
  UniqueFd writer(sys::Open((t / "new").c_str(), O_WRONLY | O_CREAT, 0644));
  EXPECT_TRUE(writer);
  EXPECT_EQ(fault::MutationCount(), 5u);

  fault::Disarm();
  EXPECT_EQ(fault::MutationCount(), 0u);
  EXPECT_EQ(MakeNumbered("d", 3), 0);
}

TEST_F(FaultSeamTest, ConfigureFromEnvironmentArmsOrNamesTheProblem) {
  const char* problem = nullptr;
  EXPECT_TRUE(fault::ConfigureFromEnvironment(&problem)) << "nothing set arms nothing";
  EXPECT_EQ(MakeNumbered("a", 1), 0);

  struct Case {
    const char* at;
    const char* action;
    const char* error;
    int expected;  // the errno of the second mkdir
  } armed[] = {{"2", nullptr, nullptr, EIO}, {"2", "fail", "EACCES", EACCES}, {"2", "fail", "28", ENOSPC}};
  int round = 0;
  for (const Case& c : armed) {
    ::setenv("VX_FAULT_AT", c.at, 1);
    c.action ? ::setenv("VX_FAULT_ACTION", c.action, 1) : ::unsetenv("VX_FAULT_ACTION");
    c.error ? ::setenv("VX_FAULT_ERRNO", c.error, 1) : ::unsetenv("VX_FAULT_ERRNO");
    ASSERT_TRUE(fault::ConfigureFromEnvironment(&problem)) << problem;
    const std::string prefix = "r" + std::to_string(++round) + "-";
    EXPECT_EQ(MakeNumbered(prefix, 1), 0);
    EXPECT_EQ(MakeNumbered(prefix, 2), c.expected);
    EXPECT_EQ(MakeNumbered(prefix, 3), 0);
  }

  fault::Disarm();
  struct Bad {
    const char* variable;
    const char* value;
  } malformed[] = {{"VX_FAULT_AT", "abc"},  {"VX_FAULT_AT", "0"},          {"VX_FAULT_AT", "3x"},
                   {"VX_FAULT_AT", "-1"},   {"VX_FAULT_ACTION", "explode"}, {"VX_FAULT_ERRNO", "EWHAT"},
                   {"VX_FAULT_ERRNO", "0"}, {"VX_FAULT_ERRNO", "-5"}};
  for (const Bad& b : malformed) {
    ::setenv("VX_FAULT_AT", "1", 1);
    ::unsetenv("VX_FAULT_ACTION");
    ::unsetenv("VX_FAULT_ERRNO");
    ::setenv(b.variable, b.value, 1);
    problem = nullptr;
    EXPECT_FALSE(fault::ConfigureFromEnvironment(&problem)) << b.variable << "=" << b.value;
    ASSERT_NE(problem, nullptr);
    EXPECT_NE(std::string(problem).find(b.variable), std::string::npos) << problem;
  }
  EXPECT_EQ(MakeNumbered("after-bad", 1), 0) << "a rejected setting arms nothing";
}

TEST_F(FaultSeamTest, CrashEndsTheProcessBeforeTheNthMutationTakesEffect) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    fault::Arm(3, fault::Action::Crash, 0);
    for (int i = 1; i <= 5; ++i) MakeNumbered("c", i);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the child ran to its end";
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  EXPECT_TRUE(Exists(t / "c1"));
  EXPECT_TRUE(Exists(t / "c2"));
  EXPECT_FALSE(Exists(t / "c3"));
  EXPECT_FALSE(Exists(t / "c4"));
}

}  // namespace
}  // namespace vx
