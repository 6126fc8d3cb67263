// The shared types everything else prints and stores: locations, property lists, the
// formatter and the two error makers.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include "platform/files/AtomicFile.h"
#include "platform/files/Fault.h"
#include "platform/files/Sys.h"
#include "platform/log/InstallerLog.h"
#include "platform/plist/PlistFile.h"
#include "platform/system/DeviceRoot.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/TestDevice.h"
#include "support/errors/ErrorMakers.h"
#include "support/types/FileURL.h"
#include "support/types/Format.h"

namespace vx {
namespace {

TEST(FileURLTest, ComponentsExtensionsAndDirectoryKind) {
  FileURL dir = FileURL::fileURLWithPath("/private/var//mobile/", true);
  EXPECT_EQ(dir.path(), "/private/var/mobile");
  EXPECT_EQ(dir.absoluteString(), "/private/var/mobile/");
  EXPECT_EQ(dir.pathComponents(), (std::vector<std::string>{"/", "private", "var", "mobile"}));

  FileURL app = dir.URLByAppendingPathComponent("Foo.app", true);
  EXPECT_EQ(app.absoluteString(), "/private/var/mobile/Foo.app/");
  EXPECT_EQ(app.pathExtension(), "app");
  EXPECT_EQ(FileURL::fileURLWithPath("/x/.hidden").pathExtension(), "");
  EXPECT_EQ(FileURL::fileURLWithPath("/x/a.tar.gz").pathExtension(), "gz");

  // Equality is by text and kind: a file and a directory location of one path differ.
  EXPECT_NE(FileURL::fileURLWithPath("/a", true), FileURL::fileURLWithPath("/a", false));
  EXPECT_EQ(FileURL::fileURLWithPathComponents({"/", "a", "b"}), FileURL::fileURLWithPath("/a/b"));
  EXPECT_EQ(FileURL::fileURLWithPath("/").pathComponents(), (std::vector<std::string>{"/"}));
  EXPECT_EQ(FileURL::fileURLWithPath("/a/b").URLByDeletingLastPathComponent().path(), "/a");
}

TEST(FormatTest, ConversionsOfTheSystemsMessages) {
  EXPECT_EQ(Format("%d|%u|%ld|%lu|%llu|%zd|%zu", -3, 7u, -9L, 10UL, 11ULL, ssize_t{-12}, size_t{13}),
            "-3|7|-9|10|11|-12|13");
  EXPECT_EQ(Format("error 0x%08X (%d)", -536870206, -536870206), "error 0xE00002C2 (-536870206)");
  EXPECT_EQ(Format("100%% of %s", "it"), "100% of it");
  EXPECT_EQ(Format("%@ and %@", FileURL::fileURLWithPath("/a/b", true), nullptr), "/a/b and (null)");
  EXPECT_EQ(Format("secondary %@", std::optional<FileURL>{}), "secondary (null)");
  // A text value prints as itself, other values in property-list notation.
  PlistDictionary d{{"Key", PlistValue("two words")}, {"N", PlistValue(5)}};
  EXPECT_EQ(Format("%@ %@", PlistValue("plain"), d), "plain {Key = \"two words\"; N = 5;}");
  // Missing arguments and unknown conversions never read out of bounds.
  EXPECT_EQ(Format("%s %q"), "(null) %q");
}

TEST(ErrorMakersTest, UserInfoAndTheLoggedLine) {
  test::LogCapture log;
  ErrorRef made = _CreateError("-[VXFileManager removeItemAtURL:error:]", 42, VXPOSIXErrorDomain, 14,
                               "nil url passed to %s", "-removeItemAtURL:error:");
  EXPECT_EQ(made->domain(), "POSIXErrorDomain");
  EXPECT_EQ(made->userInfo().size(), 3u);
  EXPECT_EQ(*made->localizedDescription(), "nil url passed to -removeItemAtURL:error:");
  EXPECT_EQ(*made->userInfo().at(VXFunctionNameErrorKey).string(), "-[VXFileManager removeItemAtURL:error:]");
  EXPECT_EQ(made->userInfo().at(VXSourceFileLineErrorKey).int64Value(), 42);
  EXPECT_TRUE(log.records().empty()) << "only the logging maker logs";

  // Given user info cannot override what the maker sets.
  ErrorRef cause = PosixCause(17);
  PlistDictionary given{{VXLocalizedDescriptionKey, PlistValue("old")},
                        {VXFunctionNameErrorKey, PlistValue("spoofed")},
                        {VXPathArgumentErrorKey, PlistValue("/t/temp.XXXXXX")}};
  ErrorRef e = _CreateAndLogError("fn", 7, VXInstallerErrorDomain, 4, cause, &given,
                                  "Failed to create temp dir at path %s", "/t/temp.XXXXXX");
  EXPECT_EQ(*e->localizedDescription(), "Failed to create temp dir at path /t/temp.XXXXXX");
  EXPECT_EQ(*e->userInfo().at(VXFunctionNameErrorKey).string(), "fn");
  EXPECT_EQ(*e->userInfo().at(VXPathArgumentErrorKey).string(), "/t/temp.XXXXXX");
  EXPECT_EQ(e->underlyingError(), cause);
  ASSERT_EQ(log.records().size(), 1u);
  const LogRecord line = log.records()[0];
  EXPECT_EQ(line.level, 3);
  EXPECT_EQ(line.function, "fn");
  EXPECT_EQ(line.message, "7: Failed to create temp dir at path /t/temp.XXXXXX (" + Describe(*cause) + ")");

  // Without a cause the line has no parenthesis; without a format nothing is logged and
  // there is no description.
  log.clear();
  _CreateAndLogError("fn", 8, VXInstallerErrorDomain, 70, nullptr, nullptr, "invalid symlink at %s", "/a");
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"8: invalid symlink at /a"}));
  ErrorRef silent = _CreateAndLogError("fn", 9, VXInstallerErrorDomain, 24, nullptr, nullptr, nullptr);
  EXPECT_EQ(silent->localizedDescription(), nullptr);
  EXPECT_EQ(log.records().size(), 1u);
}

TEST(InstallerLogTest, ThresholdRules) {
  LogHandle* saved = gLogHandle;
  LogHandle quiet{3}, verbose{7};
  gLogHandle = nullptr;
  EXPECT_TRUE(InstallerLogEnabled(3) && InstallerLogEnabled(5) && !InstallerLogEnabled(7));
  gLogHandle = &verbose;
  EXPECT_TRUE(InstallerLogEnabled(7));
  // The arguments of a suppressed line are never computed.
  gLogHandle = &quiet;
  int evaluated = 0;
  VX_INSTALLER_LOG(5, "fn", "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  gLogHandle = saved;
}

TEST(PlistFileTest, RoundTripsBothEncodingsAndRefusesNonDictionaries) {
  test::TempDir dir;
  PlistDictionary record{
      {"Text", PlistValue("a<b&c")},   {"Negative", PlistValue(-5)},
      {"Big", PlistValue(1ULL << 40)}, {"Flag", PlistValue(true)},
      {"Real", PlistValue(2.5)},       {"Bytes", PlistValue(PlistData{0, 1, 255})},
      {"List", PlistValue(PlistArray{PlistValue("x"), PlistValue(PlistDictionary{})})},
      {"When", PlistValue(PlistDate{1700000000.0})}};
  for (PlistFormat format : {PlistFormat::XML, PlistFormat::Binary}) {
    ASSERT_TRUE(WritePropertyListFile(dir / "r.plist", PlistValue(record), format));
    EXPECT_EQ(ReadPropertyListDictionary(dir / "r.plist"), record);
  }
  for (const char* content : {"", "not a property list at all", "bplist00\x01"}) {
    test::WriteFile(dir / "bad.plist", content);
    EXPECT_FALSE(ReadPropertyListFile(dir / "bad.plist")) << content;
  }
  ASSERT_TRUE(WritePropertyListFile(dir / "array.plist", PlistValue(PlistArray{PlistValue(1)})));
  EXPECT_TRUE(ReadPropertyListFile(dir / "array.plist"));
  EXPECT_FALSE(ReadPropertyListDictionary(dir / "array.plist"));
  EXPECT_FALSE(ReadPropertyListDictionary(dir / "missing.plist"));
  // A write into a directory that does not exist fails and reports why.
  int error = 0;
  EXPECT_FALSE(WritePropertyListFile(dir / "no/such/dir/x.plist", PlistValue(record),
                                     PlistFormat::XML, &error));
  EXPECT_EQ(error, ENOENT);
}

TEST(AtomicFileTest, CrashLeftoversOfTheSameTargetAreCleared) {
  test::TempDir dir;
  // What a write killed between creating and renaming its temporary file leaves behind.
  test::WriteFile(dir / ".marker.plist.Ab3dE9", "partial");
  test::WriteFile(dir / ".other.plist.Ab3dE9", "someone else's");
  test::WriteFile(dir / ".marker.plist.toolong", "not ours");
  const std::vector<uint8_t> bytes = {'o', 'k'};
  ASSERT_TRUE(WriteFileAtomically(dir / "marker.plist", bytes, nullptr));
  EXPECT_EQ(test::ReadFile(dir / "marker.plist"), "ok");
  EXPECT_FALSE(test::Exists(dir / ".marker.plist.Ab3dE9"));
  EXPECT_TRUE(test::Exists(dir / ".other.plist.Ab3dE9") && test::Exists(dir / ".marker.plist.toolong"));
}

// A power cut at each step of a write, and one just after it returned: the target holds the
// old bytes or all of the new, and once the write has returned, the new.
TEST(AtomicFileTest, OldOrNewAfterAPowerCutAtAnyStep) {
  test::TempDir dir;
  const std::string target = dir / "record.plist";
  const std::string fresh(10000, 'n');
  const std::span bytes(reinterpret_cast<const uint8_t*>(fresh.data()), fresh.size());
  fault::Disarm();
  ASSERT_TRUE(WriteFileAtomically(target, bytes, nullptr));
  const uint64_t steps = fault::MutationCount();
  // The last cut comes at the first mutation after the write returned.
  for (uint64_t step = 1; step <= steps + 1; ++step) {
    test::WriteFile(target, "old");
    const pid_t child = ::fork();
    if (child == 0) {
      fault::Arm(step, fault::Action::PowerCut, 0, {.stashDirectory = dir / "stash"});
      WriteFileAtomically(target, bytes, nullptr);
      for (;;) sys::Mkdir((dir / "after").c_str(), 0755);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "step " << step;
    const std::string content = test::ReadFile(target);
    EXPECT_TRUE(content == "old" || content == fresh) << "step " << step << ": " << content.size();
    if (step > steps) {
      EXPECT_EQ(content, fresh) << "the write returned, yet it was lost";
    }
  }
}

TEST(DeviceRootTest, DevicePathsStayUnderTheDeviceRoot) {
  const std::string& root = DeviceRoot();
  ASSERT_EQ(root, test::TestDeviceRoot());
  EXPECT_EQ(ResolveDevicePath("/private/var/x").path(), root + "private/var/x");
  EXPECT_EQ(ResolveDevicePath("private//var/./y", true).absoluteString(), root + "private/var/y/");
  // A recorded path cannot climb out of the device.
  EXPECT_EQ(ResolveDevicePath("/../../etc/passwd").path(), root + "etc/passwd");
  EXPECT_EQ(ResolveDevicePath("/a/../../b").path(), root + "b");
  EXPECT_FALSE(SetDeviceRoot("/")) << "the root is fixed once used";
}

}  // namespace
}  // namespace vx
