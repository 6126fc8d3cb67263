// The sinks the host writes the two logs to.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "platform/log/EscapedText.h"
#include "platform/log/LogSinks.h"
#include "support/TempDir.h"

namespace vx {
namespace {

using nlohmann::json;

// Its milliseconds need their leading zeros.
const std::chrono::system_clock::time_point kTime{std::chrono::milliseconds(1700000000005)};

// An installer record carries only a function; a migration record says where it came from.
LogRecord Record(LogKind log, const std::string& message, int level = 5) {
  if (log == LogKind::Installer) return {kTime, log, level, {}, "-[FM remove]", {}, {}, message};
  return {kTime, log, level, "Transhifter", "-[AM migrate]", "AM/AM", 42, message};
}

TEST(LogSinksTest, JsonLineHasExactlyTheAgreedKeysAndNulls) {
  EXPECT_EQ(json::parse(FormatJsonLogLine(Record(LogKind::Installer, "a\nb"))),
            json::parse(R"({"time": "2023-11-14T22:13:20.005Z", "log": "installer", "level": 5,
                "category": null, "function": "-[FM remove]", "file": null, "line": null,
                "message": "a\nb"})"));
  EXPECT_EQ(json::parse(FormatJsonLogLine(Record(LogKind::Migration, "done", 3))),
            json::parse(R"({"time": "2023-11-14T22:13:20.005Z", "log": "migration", "level": 3,
                "category": "Transhifter", "function": "-[AM migrate]", "file": "AM/AM",
                "line": 42, "message": "done"})"));

  // Controls are JSON's own escapes: the line holds none raw and reads back to the bytes.
  const std::string hostile = "a\x1b]0;owned\x07\x7f\r";
  const std::string escaped = FormatJsonLogLine(Record(LogKind::Migration, hostile));
  EXPECT_EQ(std::count_if(escaped.begin(), escaped.end(),
                          [](unsigned char c) { return c < 0x20 || c == 0x7f; }),
            1)  // the final line feed
      << escaped;
  EXPECT_EQ(json::parse(escaped)["message"], hostile);

  // A path that is not UTF-8 still makes one valid line rather than an exception.
  const std::string line = FormatJsonLogLine(Record(LogKind::Installer, "bad \xff\xfe path"));
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_FALSE(json::parse(line, nullptr, false).is_discarded());
}

TEST(LogSinksTest, TextFilesTakeTheirOwnLogAndAppend) {
  test::TempDir dir;
  test::WriteFile(dir / "installer.log", "earlier line\n");
  auto installer = TextLogFileSink::Open(dir / "installer.log", LogKind::Installer, nullptr);
  auto migration = TextLogFileSink::Open(dir / "migration.log", LogKind::Migration, nullptr);
  ASSERT_TRUE(installer && migration);
  for (LogSink* sink : std::vector<LogSink*>{installer.get(), migration.get()}) {
    sink->Write(Record(LogKind::Installer, "removed it"));
    sink->Write(Record(LogKind::Migration, "two\nlines"));
  }
  EXPECT_EQ(test::ReadFile(dir / "installer.log"),
            "earlier line\n2023-11-14T22:13:20.005Z <5> -[FM remove]: removed it\n");
  EXPECT_EQ(test::ReadFile(dir / "migration.log"),
            "2023-11-14T22:13:20.005Z <5> [Transhifter] AM/AM:42 -[AM migrate]: two\\nlines\n");

  int error = 0;
  EXPECT_FALSE(TextLogFileSink::Open(dir / "no/such/dir/x.log", LogKind::Installer, &error));
  EXPECT_EQ(error, ENOENT);
}

TEST(LogSinksTest, EscapedTextLetsNoControlOrStrayByteThrough) {
  const std::pair<std::string, std::string> cases[] = {
      {"com.example.app", "com.example.app"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82"},
      {"a\x1b[2Jb\x07", "a\\x1b[2Jb\\x07"},
      {"one\ntwo\rthree\tfour", "one\\ntwo\\rthree\\tfour"},
      {"back\\slash\\x1b", "back\\\\slash\\\\x1b"},  // cannot pass for an escape
      {std::string("nul\0del\x7f", 8), "nul\\x00del\\x7f"},
      {"c1 \xc2\x9b csi \xc2\x85", "c1 \\xc2\\x9b csi \\xc2\\x85"},
      {"gpj\xe2\x80\xae.exe \xe2\x81\xa6 \xd8\x9c \xe2\x80\x8f \xe2\x80\x94",
       "gpj\\xe2\\x80\\xae.exe \\xe2\\x81\\xa6 \\xd8\\x9c \\xe2\\x80\\x8f \xe2\x80\x94"},
      // Stray, overlong, surrogate, too large, cut short.
      {"\xff\x80\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80\xe2\x82",
       "\\xff\\x80\\xc0\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\\xe2\\x82"},
  };
  for (const auto& [raw, shown] : cases) {
    EXPECT_EQ(EscapedText(raw), shown) << shown;
    EXPECT_EQ(ShownUnchanged(raw), raw == shown) << shown;
  }
  // Both text sinks escape the message.
  const LogRecord record = Record(LogKind::Migration, "id\x1b]0;t\x07", 3);
  EXPECT_EQ(FormatTerminalLogLine(record), "error: id\\x1b]0;t\\x07\n");
  EXPECT_NE(FormatTextLogLine(record).find(": id\\x1b]0;t\\x07\n"), std::string::npos);
}

TEST(LogSinksTest, ConcurrentWritersNeverSplitARecord) {
  test::TempDir dir;
  auto sink = JsonLinesLogSink::Open(dir / "log.jsonl", nullptr);
  ASSERT_TRUE(sink);
  constexpr int kThreads = 4, kRecords = 150;
  const std::string padding(1500, 'x');  // long enough that a torn write would show
  {
    std::vector<std::jthread> writers;
    for (int t = 0; t < kThreads; ++t) {
      writers.emplace_back([&, t] {
        for (int i = 0; i < kRecords; ++i) {
          sink->Write(Record(LogKind::Migration, std::to_string(t * kRecords + i) + padding));
        }
      });
    }
  }
  std::set<std::string> seen;
  std::istringstream lines(test::ReadFile(dir / "log.jsonl"));
  for (std::string line; std::getline(lines, line);) {
    const json record = json::parse(line, nullptr, false);
    ASSERT_FALSE(record.is_discarded()) << line.substr(0, 80);
    seen.insert(record["message"].get<std::string>());
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kRecords));
}

TEST(LogSinksTest, TerminalShowsLevelsUpToItsThreshold) {
  test::TempDir dir;
  auto shown = [&](int maxLevel, bool eraseLine) {
    const UniqueFd out(::open((dir / "terminal").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    TerminalLogSink sink(out.get(), maxLevel, eraseLine);
    sink.Write(Record(LogKind::Migration, "broke", 3));
    sink.Write(Record(LogKind::Migration, "moving on", 5));
    sink.Write(Record(LogKind::Installer, "looked", 7));
    return test::ReadFile(dir / "terminal");
  };
  EXPECT_EQ(shown(5, false), "error: broke\nnotice: moving on\n");
  // Erasing the terminal line comes before every record.
  EXPECT_EQ(
      shown(7, true),
      "\r\033[Kerror: broke\n\r\033[Knotice: moving on\n\r\033[Kdebug: -[FM remove]: looked\n");
}

}  // namespace
}  // namespace vx
