// The physical tree walk and, on top of it, handing a tree to one owner while refusing links
// that lead out of it.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "filemanager/VXFileManager.h"
#include "platform/files/Fault.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

using Kind = TraversalEntry::Kind;

const VXFileManager& fm() { return VXFileManager::defaultManager(); }
FileURL URL(const std::string& path) { return FileURL::fileURLWithPath(path); }

struct stat Lstat(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

TEST(TreeTraversalTest, WalkOrderStopsAndErrors) {
  test::TempDir tmp;
  const std::string root = tmp / "root";
  test::WriteFile(root + "/a/file", "1");
  test::MakeSymlink("a", root + "/link");
  std::vector<std::pair<std::string, Kind>> visits;
  ASSERT_TRUE(fm()._traverseDirectory(URL(root), nullptr, [&](const TraversalEntry& e, auto*) {
    return visits.emplace_back(e.path, e.kind), e.uid == Lstat(e.path).st_uid;
  }));
  // Directories come before and after their contents; the link is not followed.
  std::vector<std::pair<std::string, Kind>> expected = {
      {root, Kind::DirectoryPre}, {root + "/a", Kind::DirectoryPre},
      {root + "/a/file", Kind::File}, {root + "/a", Kind::DirectoryPost},
      {root + "/link", Kind::Symlink}, {root, Kind::DirectoryPost}};
  ASSERT_EQ(visits.size(), 6u);
  if (visits[1].first == root + "/link") std::rotate(&expected[1], &expected[4], &expected[5]);
  EXPECT_EQ(visits, expected);

  // The visitor's error is handed out; stopping without one leaves the caller's slot alone.
  ErrorRef mine = PosixCause(EIO), error;
  EXPECT_FALSE(fm()._traverseDirectory(URL(root), &error,
                                       [&](auto&, ErrorRef* out) { return *out = mine, false; }));
  EXPECT_EQ(error, mine);
  EXPECT_FALSE(fm()._traverseDirectory(URL(root), &error, [](auto&, auto*) { return false; }));
  EXPECT_EQ(error, mine);

  // A missing root is an entry in error that the visitor never sees.
  const auto unseen = [](auto&, auto*) { return ADD_FAILURE(), true; };
  EXPECT_FALSE(fm()._traverseDirectory(URL(tmp / "missing"), &error, unseen));
  EXPECT_EQ(*error->localizedDescription(),
            "Error for path " + tmp / "missing" + ": No such file or directory");
}

class OwnershipTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::WriteFile(root + "/dir/file", "data");
    test::MakeSymlink("dir/file", root + "/inside");
    test::MakeSymlink("../dir/file", root + "/dir/sibling");
  }
  void TearDown() override { fault::Disarm(); }
  bool Normalize(uid_t uid, gid_t gid, ErrorRef* error = nullptr, std::string at = "") {
    return fm().standardizeOwnershipAndValidateSymlinksAtURL(URL(at.empty() ? root : at), uid,
                                                             gid, error);
  }
  test::TempDir tmp;
  std::string root = tmp / "root";
  struct stat own = Lstat(tmp.path());
};

TEST_F(OwnershipTest, GivesEveryItemTheOwnerThroughAFailure) {
  if (!test::RunningAsRoot()) GTEST_SKIP() << "only root can give files to another user";
  // A failed change is logged under the visitor's name and the walk goes on: the root's first
  // change fails, its second visit makes it.
  test::LogCapture log;
  fault::Arm(1, fault::Action::Fail, EPERM);
  ASSERT_TRUE(Normalize(4321, 8765));
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].function + " " + log.records()[0].message,
            "__78-[VXFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]"
            "_block_invoke Could not chown " + root + ": Operation not permitted");
  for (const std::string& item :
       {root, root + "/dir", root + "/dir/file", root + "/inside", root + "/dir/sibling"}) {
    EXPECT_EQ(std::pair(Lstat(item).st_uid, Lstat(item).st_gid), std::pair(4321u, 8765u)) << item;
  }
}

TEST_F(OwnershipTest, OwnedTreeIsUntouchedAndEscapesFailWithCode70) {
  fault::Disarm();
  EXPECT_TRUE(Normalize(own.st_uid, own.st_gid));
  EXPECT_EQ(fault::MutationCount(), 0u);

  // The last pair: a harmless-looking relative link through an absolute one.
  test::MakeSymlink("escape/passwd", root + "/hop");
  const std::pair<const char*, const char*> escaping[] = {
      {"/etc/passwd", "dir/abs"}, {"../../outside", "dir/climb"}, {"/etc", "escape"}};
  ErrorRef error;
  for (const auto& [target, name] : escaping) {
    const std::string at = root + "/" + name;
    test::MakeSymlink(target, at);
    test::LogCapture log;
    EXPECT_FALSE(Normalize(own.st_uid, own.st_gid, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), VXInstallerErrorDomain);
    EXPECT_EQ(error->code(), 70);
    EXPECT_EQ(*error->localizedDescription(), "invalid symlink at " + at);
    EXPECT_EQ(error->userInfo().at(VXLegacyErrorStringKey).int64Value(), 70);
    EXPECT_TRUE(log.contains(": invalid symlink at " + at, 3));
    ASSERT_EQ(::unlink(at.c_str()), 0);
  }

  // A root link is one entry, judged against itself.
  test::MakeSymlink("root", tmp / "relative");
  EXPECT_TRUE(Normalize(own.st_uid, own.st_gid, nullptr, tmp / "relative"));
  test::MakeSymlink(root, tmp / "absolute");
  EXPECT_FALSE(Normalize(own.st_uid, own.st_gid, &error, tmp / "absolute"));
  EXPECT_EQ(error->code(), 70);

  // The walk fails on the missing root first; the root's own status error is the one kept.
  EXPECT_FALSE(Normalize(own.st_uid, own.st_gid, &error, tmp / "missing"));
  EXPECT_TRUE(error->isPOSIX(ENOENT));
  EXPECT_EQ(*error->localizedDescription(),
            "Could not stat " + tmp / "missing" + ": No such file or directory");
}

}  // namespace
}  // namespace vx
