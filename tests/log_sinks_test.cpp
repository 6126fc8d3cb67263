// The sinks the host writes the two logs to.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "platform/LogSinks.h"
#include "platform/UniqueFd.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using nlohmann::json;

LogRecord InstallerRecord(std::string message, int level = 5) {
  LogRecord r;
  r.time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000123));
  r.log = LogKind::Installer;
  r.level = level;
  r.function = "-[VXFileManager removeItemAtURL:error:]";
  r.message = std::move(message);
  return r;
}

LogRecord MigrationRecord(std::string message, int level = 5) {
  LogRecord r = InstallerRecord(std::move(message), level);
  r.log = LogKind::Migration;
  r.category = "Transhifter";
  r.function = "-[VXAppMigrator performMigration]";
  r.file = "AppMigrator/AppMigrator";
  r.line = 42;
  return r;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(LogSinksTest, JsonLineHasExactlyTheAgreedKeysAndNulls) {
  const json installer = json::parse(FormatJsonLogLine(InstallerRecord("a\nb")));
  EXPECT_EQ(installer,
            (json{{"time", "2023-11-14T22:13:20.123Z"}, {"log", "installer"}, {"level", 5},
                  {"category", nullptr}, {"function", "-[VXFileManager removeItemAtURL:error:]"},
                  {"file", nullptr}, {"line", nullptr}, {"message", "a\nb"}}));
  const json migration = json::parse(FormatJsonLogLine(MigrationRecord("done", 3)));
  EXPECT_EQ(migration["log"], "migration");
  EXPECT_EQ(migration["level"], 3);
  EXPECT_EQ(migration["category"], "Transhifter");
  EXPECT_EQ(migration["file"], "AppMigrator/AppMigrator");
  EXPECT_EQ(migration["line"], 42);

  // A path that is not UTF-8 still makes one valid line rather than an exception.
  const std::string line = FormatJsonLogLine(InstallerRecord("bad \xff\xfe path"));
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_FALSE(json::parse(line, nullptr, false).is_discarded());

  // Milliseconds keep their leading zeros.
  EXPECT_EQ(FormatLogTime(std::chrono::system_clock::time_point(std::chrono::milliseconds(5))),
            "1970-01-01T00:00:00.005Z");
}

TEST(LogSinksTest, TextFilesTakeTheirOwnLogAndAppend) {
  test::TempDir dir;
  test::WriteFile(dir / "installer.log", "earlier line\n");
  auto installer = TextLogFileSink::Open(dir / "installer.log", LogKind::Installer, nullptr);
  auto migration = TextLogFileSink::Open(dir / "migration.log", LogKind::Migration, nullptr);
  ASSERT_TRUE(installer && migration);
  for (LogSink* sink : std::vector<LogSink*>{installer.get(), migration.get()}) {
    sink->Write(InstallerRecord("removed it"));
    sink->Write(MigrationRecord("two\nlines"));
  }

  EXPECT_EQ(Lines(test::ReadFile(dir / "installer.log")),
            (std::vector<std::string>{
                "earlier line",
                "2023-11-14T22:13:20.123Z <5> -[VXFileManager removeItemAtURL:error:]: "
                "removed it"}));
  EXPECT_EQ(Lines(test::ReadFile(dir / "migration.log")),
            (std::vector<std::string>{"2023-11-14T22:13:20.123Z <5> [Transhifter] "
                                      "AppMigrator/AppMigrator:42 -[VXAppMigrator "
                                      "performMigration]: two\\nlines"}));

  int error = 0;
  EXPECT_FALSE(TextLogFileSink::Open(dir / "no/such/dir/x.log", LogKind::Installer, &error));
  EXPECT_EQ(error, ENOENT);
}

TEST(LogSinksTest, ConcurrentWritersNeverSplitARecord) {
  test::TempDir dir;
  auto sink = JsonLinesLogSink::Open(dir / "log.jsonl", nullptr);
  ASSERT_TRUE(sink);
  constexpr int kThreads = 4, kRecords = 150;
  // Long enough that a torn write would show.
  const std::string padding(1500, 'x');
  {
    std::vector<std::jthread> writers;
    for (int t = 0; t < kThreads; ++t) {
      writers.emplace_back([&, t] {
        for (int i = 0; i < kRecords; ++i) {
          sink->Write(MigrationRecord(std::to_string(t) + ":" + std::to_string(i) + padding));
        }
      });
    }
  }
  const auto lines = Lines(test::ReadFile(dir / "log.jsonl"));
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kRecords));
  std::set<std::string> seen;
  for (const std::string& line : lines) {
    const json record = json::parse(line, nullptr, false);
    ASSERT_FALSE(record.is_discarded()) << line.substr(0, 80);
    seen.insert(record["message"].get<std::string>());
  }
  EXPECT_EQ(seen.size(), lines.size());
}

TEST(LogSinksTest, TerminalShowsLevelsUpToItsThreshold) {
  auto shown = [](int maxLevel, bool eraseLine) {
    int fds[2];
    EXPECT_EQ(::pipe(fds), 0);
    UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
    {
      TerminalLogSink sink(writeEnd.get(), maxLevel, eraseLine);
      sink.Write(MigrationRecord("broke", 3));
      sink.Write(MigrationRecord("moving on", 5));
      sink.Write(InstallerRecord("looked", 7));
    }
    writeEnd.reset();
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(readEnd.get(), buffer, sizeof buffer)) > 0;) text.append(buffer, n);
    return text;
  };
  EXPECT_EQ(shown(3, false), "error: broke\n");
  EXPECT_EQ(shown(5, false), "error: broke\nnotice: moving on\n");
  EXPECT_EQ(shown(7, false),
            "error: broke\nnotice: moving on\n"
            "debug: -[VXFileManager removeItemAtURL:error:]: looked\n");
  EXPECT_EQ(shown(3, true), "\r\033[Kerror: broke\n");
}

}  // namespace
}  // namespace vx
