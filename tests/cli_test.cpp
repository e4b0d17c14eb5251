// The command as a user runs it: the built program, its output and its exit codes.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>

#include "support.h"

namespace runeflow {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

struct Outcome {
  int exitCode;
  std::string output;
};

class Command : public testing::Test {
 protected:
  // Runs in a folder of its own; `redirections` joins or drops standard error.
  Outcome run(const std::string& arguments, const std::string& redirections = "2>&1") const {
    return runLine(fmt::format("{} {} {}", RUNEFLOW_COMMAND, arguments, redirections));
  }
  // With a terminal for its output.
  std::string shown(const std::string& arguments) const {
    return runLine(
               fmt::format("script -qec '{} {}' /dev/null </dev/null", RUNEFLOW_COMMAND, arguments))
        .output;
  }
  Outcome runLine(const std::string& command) const {
    const auto line = fmt::format("cd {} && TZ=UTC0 {}", folder_.file(""), command);
    std::string output;
    FILE* const pipe = ::popen(line.c_str(), "r");
    if (!pipe) return {-1, "no shell"};
    std::array<char, 4096> piece{};
    for (std::size_t size = 0; (size = std::fread(piece.data(), 1, piece.size(), pipe)) > 0;) {
      output.append(piece.data(), size);
    }
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
  }
  void write(const std::string& name, std::string_view text) const {
    std::ofstream(folder_.file(name), std::ios::binary) << text;
  }
  void captureThree() const {
    write("a.log",
          "01-02 03:04:05.678  10  20 W Net: disk full, \"really\"\r\n01-02 03:04:06.000  10  21 I "
          "Net: a\tb\x1b[31m\xC2\x9B\r\n"
          "01-02 03:04:07.000  11  21 E Wifi: disk gone\r\nunfinished");
    EXPECT_EQ(run("capture a.log --db a.db").exitCode, 0);
  }

  test::TemporaryFolder folder_;
};

TEST_F(Command, capturesAppendsAndSummarises) {
  captureThree();
  const auto again = run("capture - --db a.db --max-bytes 1G <a.log");
  EXPECT_THAT(
      again.output,
      MatchesRegex(
          "runeflow: 3 records, 1[0-9]+ bytes in [0-9.]+ s, [0-9]+ rows/s, 6 records kept\n"));
  EXPECT_EQ(run("query a.db --count", "").output, "6\n");
  EXPECT_THAT(run("info a.db").output,
              AllOf(StartsWith("a.db: Android records\n  records     6\n  seq         1 to 6\n"),
                    HasSubstr("full text   yes")));
  EXPECT_THAT(
      run("info a.db --json").output,
      HasSubstr(R"("levels":{"Trace":0,"Debug":0,"Info":2,"Warning":2,"Error":2,"Fatal":0})"));
}

TEST_F(Command, printsRecordsForProgramsInStableForms) {
  captureThree();
  // Logcat tells no year.
  const auto printed = [this](const std::string& arguments) {
    return std::regex_replace(run("query a.db " + arguments, "").output, std::regex("20..-01-02T"),
                              "Y-01-02T");
  };
  EXPECT_EQ(run("query a.db Net", "").exitCode, 1);
  EXPECT_EQ(printed("tag:Net --last 1"),
            "2\tY-01-02T03:04:06.000000Z\tInfo\tNet\t10\t21\ta\\tb\\x1b[31m\\u009b\n");
  EXPECT_EQ(
      printed("level:warn disk --first 1 --json"),
      "{\"seq\":1,\"time\":\"Y-01-02T03:04:05.678000Z\",\"level\":\"Warning\",\"tag\":\"Net\","
      "\"pid\":\"10\",\"tid\":\"20\",\"message\":\"disk full, \\\"really\\\"\"}\n");
  EXPECT_EQ(printed("full --csv"),
            "seq,time,level,tag,pid,tid,message\r\n"
            "1,Y-01-02T03:04:05.678000Z,Warning,Net,10,20,\"disk full, \"\"really\"\"\"\r\n");
  EXPECT_EQ(run("query a.db disk --after 1 --count", "").output, "1\n");
  EXPECT_EQ(run("query a.db DISK --match-case --count", "").output, "0\n");
  EXPECT_EQ(run("query a.db '[disk]' full --count", "").output, "1\n");
  EXPECT_EQ(run("query a.db '[gone,disk]' --count", "").output, "0\n");
  EXPECT_THAT(run("query a.db tag:Net --plan").output, HasSubstr("i_s0"));
  EXPECT_EQ(run("values a.db tag", "").output, "Net\t2\nWifi\t1\n");
  EXPECT_EQ(run("values a.db tag --matching disk --prefix W --json", "").output,
            "{\"value\":\"Wifi\",\"count\":1}\n");
  EXPECT_EQ(run("values a.db level --limit 1", "").output, "Info\t1\n");
}

TEST_F(Command, showsPeopleAlignedRecordsWithTheirWordsMarked) {
  captureThree();
  const auto withoutYear = [](std::string text) { return text.substr(text.find("01-02")); };
  const std::string marked = "\x1b[1;30;43mdisk\x1b[0m";
  EXPECT_EQ(withoutYear(shown("query a.db DISK --last 1")),
            "01-02 03:04:07.000\x1b[0m \x1b[31mE\x1b[0m Wifi 11  " + marked + " gone\r\n");
  EXPECT_THAT(shown("query a.db disk --first 1"), HasSubstr(" Net 10  " + marked + " full, \""));
  EXPECT_THAT(shown("query a.db is OR disk --last 1"), HasSubstr(marked + " gone"));
  EXPECT_THAT(shown("query a.db \"dis gon\" --last 1"),
              HasSubstr("\x1b[1;30;43mdis\x1b[0mk \x1b[1;30;43mgon"));
  for (const auto* form : {"", "--csv", "--json"}) {
    EXPECT_THAT(shown(fmt::format("query a.db tag:Net --last 1 {}", form)),
                AllOf(HasSubstr("[31m\\u009b"), testing::Not(HasSubstr("\x1b[31m"))));
  }
}

TEST_F(Command, followsWhatOthersStoreAndStartsOverWhenTheyClear) {
  captureThree();
  const auto pid = runLine(
      fmt::format("{} query a.db disk --follow --last 1 >seen & echo $!", RUNEFLOW_COMMAND));
  const auto seen = [this](const std::string& seqs) {
    for (int left = 1'000; left > 0; --left, ::usleep(10'000)) {
      if (runLine("cut -f1 seen | tr '\\n' ' '").output == seqs) return true;
    }
    return false;
  };
  EXPECT_TRUE(seen("3 "));
  run("capture a.log --db a.db");
  EXPECT_TRUE(seen("3 4 6 "));
  runLine(
      fmt::format("{0} clear a.db --yes && yes '01-02 03:04:05.678  1  2 W Net: another disk' | "
                  "head -n 7 | {0} capture - --db a.db",
                  RUNEFLOW_COMMAND));
  EXPECT_TRUE(seen("3 4 6 1 2 3 4 5 6 7 "));
  EXPECT_EQ(::kill(std::stoi(pid.output), SIGINT), 0);
}

TEST_F(Command, clearsOnlyWhenSure) {
  captureThree();
  EXPECT_EQ(run("clear a.db </dev/null").exitCode, 2);
  EXPECT_EQ(run("query a.db --count", "").output, "3\n");
  EXPECT_EQ(run("clear a.db --yes").exitCode, 0);
  EXPECT_EQ(run("query a.db --count").exitCode, 1);
}

TEST_F(Command, whatCannotBeDoneIsOneSentenceAndExitCodeTwo) {
  captureThree();
  write("text", "no log at all\n");
  write("empty", "");
  write("other", "");
  test::sql(folder_.file("other"), "CREATE TABLE t(x)");
  write("view", "");
  test::sql(folder_.file("view"), "CREATE VIEW events AS SELECT 1 seq, 2 ts, 3 level, 'm' message");
  write("rec.dlt", std::string("DLT\x01") + std::string(12, '\0'));
  const std::pair<const char*, const char*> table[] = {
      {"capture missing.log --db b.db", "cannot open missing.log: No such file or directory"},
      {"capture . --db b.db", ". is a directory"},
      {"capture text --db b.db",
       "text is neither a DLT recording nor logcat threadtime text; name what it holds with "
       "--format"},
      {"capture rec.dlt --db a.db", "a.db already holds logcat records"},
      {"capture a.log rec.dlt --db b.db", "a.log holds logcat records but rec.dlt holds dlt"},
      {"capture a.log --db text", "text is not a database"},
      {"capture a.log --db b.db --max-bytes 9999999999G", "'9999999999G' is not a size"},
      {"capture a.log --db b.db --reconnect", "--reconnect goes with --dlt or --adb"},
      {"capture --db b.db", "name what to capture"},
      {"capture --dlt 127.0.0.1:0 --db b.db", "no valid port"},
      {"capture --dlt ::1]:3490 --db b.db", "'::1]:3490' has a bracket without its counterpart"},
      {"capture --dlt 127.0.0.1:1 --db b.db", "127.0.0.1:1: Connection refused"},
      {"capture --adb 127.0.0.1:1 --db b.db", "No adb server is listening on 127.0.0.1:1."},
      {"query missing.db x", "missing.db does not exist"},
      {"query empty x", "empty holds no log records"},
      {"query other x", "other holds no log records"},
      {"info view --source logcat", "view holds no log records"},
      {"values a.db tagg", "there is no field 'tagg'; Android records have tag, pid, tid, level"},
      {"query a.db x --json --csv", "--json excludes --csv"},
      {"query a.db x --frist 1", "there is no option --frist"},
      {"values a.db tag --matching \"$(yes NOT | head -n 60)x\"",
       "deeper groups than SQLite takes"},
      {"query a.db x --first -1", "'-1' is not a whole number of 1 or more"},
      {"nonsense", "see --help"},
  };
  for (const auto& [arguments, names] : table) {
    SCOPED_TRACE(arguments);
    const auto [exitCode, output] = run(arguments);
    EXPECT_EQ(exitCode, 2);
    EXPECT_THAT(output, AllOf(StartsWith("runeflow: "), HasSubstr(names), EndsWith("\n")));
    EXPECT_EQ(std::ranges::count(output, '\n'), 1) << output;
  }
  EXPECT_FALSE(std::filesystem::exists(folder_.file("b.db")));
  EXPECT_THAT(test::sql(folder_.file("other"), "PRAGMA journal_mode"), ElementsAre("delete"));
  EXPECT_EQ(run("query a.db disk", "2>&1 >/dev/full").output,
            "runeflow: cannot write the output; is its disk full?\n");
  EXPECT_EQ(run("query a.db disk", ">/dev/full 2>&1").exitCode, 2);
}

TEST_F(Command, anInterruptedCaptureKeepsEverythingDecoded) {
  captureThree();
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  const auto database = folder_.file("a.db");
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(ends[0], STDIN_FILENO);
    ::close(ends[1]);
    ::execl(RUNEFLOW_COMMAND, RUNEFLOW_COMMAND, "capture", "-", "--db", database.c_str(), nullptr);
    ::_exit(127);
  }
  const std::string_view line = "01-02 03:04:05.678  10  20 W Net: the last words\n";
  ASSERT_EQ(::write(ends[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
  // Its reading the line means that it waits for signals already.
  for (int left = 1; left > 0; ::usleep(1'000)) ASSERT_EQ(::ioctl(ends[1], FIONREAD, &left), 0);
  ::usleep(100'000);
  ::kill(child, SIGINT);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(run("query a.db last --count", "").output, "1\n");
}

}  // namespace
}  // namespace runeflow
