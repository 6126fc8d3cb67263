// The counted high-resource assertion, observed through the CPU-time limit it lifts.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "support/ResourceAssertion.h"

namespace vx {
namespace {

class ResourceAssertionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::getrlimit(RLIMIT_CPU, &original_), 0);
    if (original_.rlim_max != RLIM_INFINITY && original_.rlim_max < 2) {
      GTEST_SKIP() << "the hard CPU-time limit leaves no room below it";
    }
    // A soft limit below the hard one, so that lifting it is visible.
    limited_ = original_.rlim_max == RLIM_INFINITY ? 1'000'000 : original_.rlim_max - 1;
    SetSoftLimit(limited_);
  }
  void TearDown() override { ::setrlimit(RLIMIT_CPU, &original_); }

  static rlim_t SoftLimit() {
    struct rlimit now {};
    ::getrlimit(RLIMIT_CPU, &now);
    return now.rlim_cur;
  }
  void SetSoftLimit(rlim_t soft) {
    const struct rlimit wanted { soft, original_.rlim_max };
    ASSERT_EQ(::setrlimit(RLIMIT_CPU, &wanted), 0);
  }

  struct rlimit original_ {};
  rlim_t limited_ = 0;
};

TEST_F(ResourceAssertionTest, OnlyTheZeroOneTransitionsTouchTheMonitor) {
  const int32_t before = VXHighResourceAssertionCount();
  ASSERT_EQ(before, 0);
  VXAssertHighResourceUsage();
  EXPECT_EQ(SoftLimit(), original_.rlim_max);

  // A limit changed behind the monitor's back shows whether later calls touch it.
  SetSoftLimit(limited_ - 1);
  VXAssertHighResourceUsage();
  EXPECT_EQ(SoftLimit(), limited_ - 1);
  VXClearResourceAssertion();
  EXPECT_EQ(SoftLimit(), limited_ - 1);
  EXPECT_EQ(VXHighResourceAssertionCount(), 1);

  // The last clearing puts back the limit from before the first assertion.
  VXClearResourceAssertion();
  EXPECT_EQ(SoftLimit(), limited_);
  EXPECT_EQ(VXHighResourceAssertionCount(), 0);
}

}  // namespace
}  // namespace vx
