// The fault seam that crash-safety tests and the host's VX_FAULT_* variables rely on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <csignal>
#include <set>
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

// Runs `work` in a child armed to cut the power at mutation `nth`; true when the cut came.
template <typename Work>
bool CutPowerAt(uint64_t nth, const fault::PowerCutOptions& options, Work work) {
  const pid_t child = ::fork();
  if (child == 0) {
    fault::Arm(nth, fault::Action::PowerCut, 0, options);
    work();
    ::_exit(0);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

int OpenDirectory(const std::string& path) { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY); }

TEST_F(FaultSeamTest, PowerCutKeepsOnlyWhatWasSynced) {
  for (const char* name : {"a/gone", "a/grown", "a/moved", "b/replaced", "s/lost", "m/loose", "m/kept"}) {
    test::WriteFile(t / name, name);
  }
  test::MakeDirs(t / "c");
  const bool attributes = ::setxattr((t / "m/loose").c_str(), "user.vx.class", "1", 1, 0) == 0;
  ASSERT_TRUE(CutPowerAt(1000, {.stashDirectory = t / "stash"}, [&] {
    // Never synced: a new directory, a removal, an append.
    Make("new");
    sys::Unlink((t / "a/gone").c_str());
    UniqueFd grown(sys::Open((t / "a/grown").c_str(), O_WRONLY | O_APPEND));
    sys::WriteAll(grown.get(), "+more", 5);
    // Synced data under a name that is not goes with the name.
    UniqueFd fresh(sys::Open((t / "c/fresh").c_str(), O_WRONLY | O_CREAT, 0644));
    sys::WriteAll(fresh.get(), "data", 4);
    sys::Fsync(fresh.get());
    // A rename whose destination alone is synced stands (here over another file); whose
    // source alone is synced loses the item.
    sys::Rename((t / "a/moved").c_str(), (t / "b/replaced").c_str());
    sys::Rename((t / "s/lost").c_str(), (t / "c/lost").c_str());
    UniqueFd b(OpenDirectory(t / "b")), source(OpenDirectory(t / "s"));
    sys::Fsync(b.get());
    sys::Fsync(source.get());
    // A new mode or attribute reaches the disk with its node's fsync, not before.
    UniqueFd loose(sys::Open((t / "m/loose").c_str(), O_RDONLY)), kept(sys::Open((t / "m/kept").c_str(), O_RDONLY));
    for (int fd : {loose.get(), kept.get()}) {
      sys::Fchmod(fd, 0600);
      sys::Fsetxattr(fd, "user.vx.class", "4", 1, 0);
    }
    sys::Fsync(kept.get());
    for (;;) Make("the cut comes");
  }));
  struct stat loose {}, kept {};
  ASSERT_EQ(::stat((t / "m/loose").c_str(), &loose), 0);
  ASSERT_EQ(::stat((t / "m/kept").c_str(), &kept), 0);
  EXPECT_EQ(loose.st_mode & 0777, 0644u);
  EXPECT_EQ(kept.st_mode & 0777, 0600u);
  char value[4] = {};
  if (attributes) {
    EXPECT_EQ(::getxattr((t / "m/loose").c_str(), "user.vx.class", value, sizeof value), 1);
    EXPECT_EQ(value[0], '1');
    EXPECT_EQ(::getxattr((t / "m/kept").c_str(), "user.vx.class", value, sizeof value), 1);
    EXPECT_EQ(value[0], '4');
  }
  EXPECT_FALSE(Exists(t / "new"));
  EXPECT_EQ(test::ReadFile(t / "a/gone"), "a/gone");
  EXPECT_EQ(test::ReadFile(t / "a/grown"), "a/grown") << "unsynced data is cut off";
  EXPECT_FALSE(Exists(t / "c/fresh"));
  EXPECT_FALSE(Exists(t / "a/moved"));
  EXPECT_EQ(test::ReadFile(t / "b/replaced"), "a/moved");
  EXPECT_FALSE(Exists(t / "s/lost") || Exists(t / "c/lost"));
}

TEST_F(FaultSeamTest, PartialPowerCutKeepsAPrefixOfOneDirectory) {
  constexpr int kFiles = 12;
  std::set<size_t> kept;
  for (uint64_t seed = 1; seed <= 64; ++seed) {
    const std::string root = t / ("seed" + std::to_string(seed));
    test::MakeDirs(root);
    ASSERT_TRUE(CutPowerAt(kFiles + 1, {.partial = true, .seed = seed, .stashDirectory = t / "stash"}, [&] {
      for (int i = 0; i < kFiles + 1; ++i) sys::Mkdir((root + "/" + std::to_string(i)).c_str(), 0755);
    }));
    size_t survivors = 0;
    while (Exists(root + "/" + std::to_string(survivors))) ++survivors;
    for (int i = static_cast<int>(survivors); i <= kFiles; ++i) {
      EXPECT_FALSE(Exists(root + "/" + std::to_string(i))) << "seed " << seed << ": not a prefix";
    }
    kept.insert(survivors);
  }
  EXPECT_GT(kept.size(), 2u) << "the point of the cut varies with the seed";
  // Both ends are reachable: a cut that kept one operation fewer than it chose would never
  // leave a directory whose last queued operation reached the disk.
  EXPECT_TRUE(kept.count(kFiles)) << "no seed kept every operation";
}

}  // namespace
}  // namespace vx
