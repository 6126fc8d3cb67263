// Path containment as an attacker sees it: every link below is something a user could plant
// in a tree that a privileged installer is about to take over.
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "filemanager/VXFileManager.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/VerboseLog.h"

namespace vx {
namespace {

using test::LogCapture;
using test::MakeSymlink;

const VXFileManager& fm() { return VXFileManager::defaultManager(); }

class PathContainmentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::WriteFile(base + "/dir/file", "x");
    test::WriteFile(base + "/dirx/file", "x");
    test::WriteFile(tmp / "outside", "secret");
  }
  std::optional<std::string> Contained(const std::string& suspicious, const std::string& in) {
    auto real = fm().realPathForURL(FileURL::fileURLWithPath(suspicious),
                                    FileURL::fileURLWithPath(in));
    return real ? std::optional<std::string>(real->path()) : std::nullopt;
  }
  test::TempDir tmp;
  std::string base = tmp / "base";
};

TEST_F(PathContainmentTest, PlainPaths) {
  LogCapture log;
  test::VerboseLog verbose;
  EXPECT_EQ(Contained(base, base), base);
  EXPECT_EQ(Contained(base + "/dir/file", base), base + "/dir/file");
  EXPECT_EQ(Contained(base + "/new/deeper", base), base + "/new/deeper");
  EXPECT_TRUE(log.contains("Realpathed " + base + " ; appending non-existing components new/deeper",
                           7));
  // Where "/private" is no alias of "/", a path that begins with it names another place.
  if (!test::Exists("/private/tmp")) {
    EXPECT_EQ(Contained("/private" + base + "/dir/file", base), std::nullopt);
    EXPECT_EQ(Contained(base + "/dir/file", "/private" + base), std::nullopt);
  }

  EXPECT_EQ(Contained(tmp / "outside", base), std::nullopt);
  EXPECT_TRUE(log.contains(
      "supiscious path " + tmp / "outside" + " does not contain base path " + base, 3));
  // ".." is refused on sight, even where it would resolve back inside.
  EXPECT_EQ(Contained(base + "/dir/../dir/file", base), std::nullopt);
  EXPECT_TRUE(log.contains("contains '..' paths, which are invalid", 3));
  // A sibling that merely starts like the base passes the text test, not the components.
  EXPECT_EQ(Contained(base + "/dirx/file", base + "/dir"), std::nullopt);
  EXPECT_TRUE(log.contains("because components diverge at dir != dirx", 3));
  EXPECT_EQ(fm().realPathForURL(FileURL::fileURLWithPath(base), std::nullopt), std::nullopt);
  EXPECT_TRUE(log.contains("The base path (null) and/or suspicious path " + base + " were nil"));
  // A base that does not exist whole contains nothing.
  EXPECT_EQ(Contained(base + "/gone/x", base + "/gone"), std::nullopt);
  EXPECT_TRUE(log.contains("Failed to retrieve realpath for base path " + base + "/gone ", 3));
  EXPECT_EQ(fm()._realPathWhatExistsInPath("/"), std::nullopt);
}

TEST_F(PathContainmentTest, LinksAreJudgedByTheirText) {
  const std::pair<const char*, const char*> escaping[] = {
      {"abs", "/etc/passwd"},        {"absInside", "/tmp"},  {"up", "../outside"},
      {"dir/up2", "../../outside"},  {"parent", ".."},       {"dir/zigzag", "x/../../../outside"}};
  for (const auto& [name, target] : escaping) MakeSymlink(target, base + "/" + name);
  LogCapture log;
  for (const auto& [name, target] : escaping)
    EXPECT_EQ(Contained(base + "/" + name, base), std::nullopt) << name;
  EXPECT_TRUE(log.contains(
      "Rejecting " + base + "/abs -> /etc/passwd, as absolute symlinks are not allowed", 3));
  EXPECT_TRUE(log.contains(
      "Rejecting " + base + "/up -> /../outside, as it is points outside or to the base " + base,
      3));
  EXPECT_EQ(log.count("as it is points outside", 3), 4u);

  const std::pair<const char*, const char*> inside[] = {
      {"dir/sibling", "../dir/file"}, {"roundTrip", "dir/../dirx"}, {"self", "."},
      {"hop", "dir/sibling"},         {"dangling", "not-there"}};
  for (const auto& [name, target] : inside) MakeSymlink(target, base + "/" + name);
  EXPECT_EQ(Contained(base + "/dir/sibling", base), base + "/dir/file");
  EXPECT_EQ(Contained(base + "/roundTrip", base), base + "/dirx");
  EXPECT_EQ(Contained(base + "/self", base), base);
  EXPECT_EQ(Contained(base + "/hop", base), base + "/dir/file");
  EXPECT_EQ(Contained(base + "/dangling", base), base + "/dangling");
}

TEST_F(PathContainmentTest, LongTextsCannotSmuggleAnEscape) {
  // Down 600 levels, up 601: judged by its first kilobyte only, the text looks harmless.
  std::string text;
  int fd = ::open(base.c_str(), O_RDONLY | O_DIRECTORY);
  for (int i = 0; i < 600; ++i, text += "d/") {
    ASSERT_EQ(::mkdirat(fd, "d", 0755), 0);
    int next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY);
    ::close(fd);
    fd = next;
  }
  ::close(fd);
  for (int i = 0; i < 601; ++i) text += "../";
  MakeSymlink(text + "outside", base + "/long");
  LogCapture log;
  EXPECT_EQ(Contained(base + "/long", base), std::nullopt);
  EXPECT_TRUE(log.contains("as it is points outside or to the base", 3));

  std::string huge = base;
  while (huge.size() <= PATH_MAX) huge += "/" + std::string(200, 'n');
  EXPECT_EQ(Contained(huge, base), std::nullopt);
  EXPECT_TRUE(log.contains("Readlink failed: File name too long", 3));
}

}  // namespace
}  // namespace vx
