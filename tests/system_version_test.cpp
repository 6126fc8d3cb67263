// The running system's version record, read from the device's os-release.
#include <gtest/gtest.h>

#include "platform/system/SystemVersion.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"

namespace vx {
namespace {

TEST(SystemVersionTest, ReadsOsReleaseWithShellQuoting) {
  test::ResetTestDevice();
  EXPECT_FALSE(SystemVersionRecord()) << "no os-release on the device";

  test::WriteFile(test::DevicePath("etc/os-release"),
                  "# Comment line\n"
                  "\n"
                  "NAME=\"Velotrix \\\"Edge\\\" OS\"\n"
                  "  ID=velotrix\n"
                  "VERSION_ID='2.0 beta'\n"
                  "PRETTY_NAME=\"A \\$HOME \\\\ and \\q\"\n"
                  "EMPTY=\n"
                  "MIXED=\"a\"'b'c\n"
                  "CRLF=\"x\"\r\n"
                  "not a line\n"
                  "9BAD=x\n"
                  "OPEN=\"never closed\n"
                  "VERSION_ID=2.1\n"
                  "BUILD_ID=2A101 # trailing words are not the value\n");
  const auto record = SystemVersionRecord();
  ASSERT_TRUE(record);
  const PlistDictionary expected{
      {"NAME", "Velotrix \"Edge\" OS"}, {"ID", "velotrix"}, {"VERSION_ID", "2.1"},
      {"PRETTY_NAME", "A $HOME \\ and \\q"}, {"EMPTY", ""},  {"MIXED", "abc"},
      {"CRLF", "x"}, {"BUILD_ID", "2A101"}};
  EXPECT_EQ(*record, expected);

  EXPECT_EQ(SystemBuildVersion(*record), "2A101");
  EXPECT_EQ(SystemBuildVersion({{"VERSION_ID", "2.1"}}), "2.1");
  EXPECT_EQ(SystemBuildVersion({{"NAME", "x"}}), std::nullopt);
}

}  // namespace
}  // namespace vx
