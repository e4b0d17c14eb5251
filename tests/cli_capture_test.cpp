// SPDX-License-Identifier: MIT

// What `runeflow capture`, `check`, `clear` and `values` say, and the exit codes they end with.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "command_fixture.h"
#include "stand_in_server.h"
#include "support.h"

namespace runeflow {
namespace {

using test::deviceList;
using test::kLogLine;
using test::StandInServer;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class CaptureCommand : public test::CommandFixture {
 protected:
  // Starts the command in the folder with its output in the file `said`.
  pid_t start(const std::string& arguments) const {
    const auto line = fmt::format("cd {} && exec {} {} >said 2>&1", folder_.file(""),
                                  RUNEFLOW_COMMAND, arguments);
    const pid_t child = ::fork();
    if (child == 0) {
      ::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
      ::_exit(127);
    }
    return child;
  }
  bool becomes(const std::string& arguments, const std::string& output) const {
    for (int left = 500; left > 0; --left, ::usleep(20'000)) {
      if (run(arguments).output == output) return true;
    }
    return false;
  }
  // Returns the exit code, or -1 if the process did not end by itself within 10 s.
  static int exitCodeOf(pid_t child) {
    int status = 0;
    for (int left = 500; left > 0; --left, ::usleep(20'000)) {
      if (::waitpid(child, &status, WNOHANG) == child) {
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return -1;
  }
  std::string said() const { return runLine("cat said").output; }
};

TEST_F(CaptureCommand, takesOneSource) {
  write("a.log", kLogLine);
  for (const auto* sources : {"a.log --adb 127.0.0.1:1", "a.log --dlt 127.0.0.1:1",
                              "--adb 127.0.0.1:1 --dlt 127.0.0.1:1", "- --adb 127.0.0.1:1"}) {
    SCOPED_TRACE(sources);
    const auto [exitCode, output] = run(fmt::format("capture {} --db a.db </dev/null", sources));
    EXPECT_EQ(exitCode, 2);
    EXPECT_EQ(std::ranges::count(output, '\n'), 1) << output;
    EXPECT_FALSE(std::filesystem::exists(folder_.file("a.db")));
  }
}

TEST_F(CaptureCommand, endsTheLastLineOfAFileButNotOfALiveStream) {
  const auto unended = kLogLine + kLogLine.substr(0, kLogLine.size() - 1);
  write("a.log", unended);
  EXPECT_THAT(run("capture a.log --db file.db").output, StartsWith("runeflow: 2 records, "));
  EXPECT_THAT(run("capture - --db input.db <a.log").output, StartsWith("runeflow: 2 records, "));
  StandInServer server({{deviceList("a device\n")}, {"OKAY", "OKAY" + unended}});
  EXPECT_THAT(run("capture --db live.db --adb " + server.address()).output,
              StartsWith("runeflow: 1 record, "));
}

TEST_F(CaptureCommand, picksTheDevice) {
  const struct {
    const char* devices;
    const char* options;
    int exitCode;
    const char* says;
  } table[] = {
      {"a device\n", "", 0, "runeflow: 1 record, "},
      {"a device model:Pixel_6\nb device\n", "", 0, "of 2 devices; --serial selects another\n"},
      {"a device\nb device\n", "--serial b", 0, "runeflow: 1 record, "},
      {"a device\nb device\n", "--serial c", 2, "no device has the serial 'c'; attached: a, b\n"},
      {"a unauthorized\n", "", 2, "Device a is 'unauthorized'"},
      {"a offline\nb device\n", "--serial a", 2, "Device a is 'offline'"},
      {"", "", 2, "No Android devices or emulators are attached"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.says);
    StandInServer server({{deviceList(row.devices)}, {"OKAY", "OKAY" + kLogLine}});
    const auto [exitCode, output] =
        run(fmt::format("capture --db a.db --adb {} {}", server.address(), row.options));
    EXPECT_EQ(exitCode, row.exitCode);
    EXPECT_THAT(output, HasSubstr(row.says));
    EXPECT_EQ(std::ranges::count(output, '\n'), output.contains("of 2 devices") ? 2 : 1) << output;
  }
}

TEST_F(CaptureCommand, keepsBelowItsCap) {
  std::string log;
  for (int i = 0; i < 20'000; ++i) {
    log += fmt::format("01-02 03:04:05.678  10  20 W Net: {} {}\n", i, std::string(500, 'x'));
  }
  write("a.log", log);
  EXPECT_THAT(run("capture a.log --db all.db").output, Not(HasSubstr("kept")));
  EXPECT_EQ(run("query all.db --count").output, "20000\n");
  const auto [exitCode, output] = run("capture a.log --db a.db --max-bytes 4M");
  EXPECT_EQ(exitCode, 0);
  EXPECT_THAT(output, AllOf(StartsWith("runeflow: 20000 records, "), EndsWith(" records kept\n")));
  const auto kept = std::stoi(run("query a.db --count").output);
  EXPECT_THAT(output, HasSubstr(fmt::format("rows/s, {} records kept", kept)));
  EXPECT_GT(kept, 1'000);
  EXPECT_LT(kept, 10'000);
  EXPECT_THAT(run("query a.db --last 1").output, StartsWith("20000\t"));
  EXPECT_THAT(run("capture a.log --db b.db --max-bytes 4095K").output, HasSubstr("below 4M"));
}

TEST_F(CaptureCommand, aLineWithoutEndIsNotCollectedForEver) {
  const auto [exitCode, output] = runLine(
      fmt::format("true; (echo '{}'; head -c 80000000 /dev/zero | tr '\\0' x) | {} capture - "
                  "--db a.db 2>&1",
                  kLogLine.substr(0, kLogLine.size() - 1), RUNEFLOW_COMMAND));
  EXPECT_EQ(exitCode, 2);
  EXPECT_EQ(std::ranges::count(output, '\n'), 2) << output;
  EXPECT_EQ(run("query a.db disk --count").output, "1\n");
}

TEST_F(CaptureCommand, noticesThatItsDatabaseIsGone) {
  captureThree();
  ASSERT_EQ(runLine("mkfifo fifo").exitCode, 0);
  const auto capture = start("capture fifo --db a.db");
  const auto writer = fmt::format("true; (echo '{}'; exec sleep 30) >fifo & echo $!",
                                  kLogLine.substr(0, kLogLine.size() - 1));
  const auto pid = std::stoi(runLine(writer).output);
  EXPECT_TRUE(becomes("query a.db --count", "4\n"));
  ASSERT_TRUE(std::filesystem::remove(folder_.file("a.db")));
  EXPECT_EQ(exitCodeOf(capture), 2);
  EXPECT_THAT(said(), HasSubstr("deleted or replaced"));
  ::kill(pid, SIGKILL);
}

TEST_F(CaptureCommand, aFollowerNoticesThatTheDatabaseIsGone) {
  captureThree();
  const auto follower = start("query a.db --follow --last 1");
  for (int left = 500; left > 0 && said().empty(); --left) ::usleep(20'000);
  runLine("rm a.db*");
  EXPECT_EQ(exitCodeOf(follower), 2);
  EXPECT_THAT(said(), HasSubstr("a.db was deleted or replaced meanwhile"));
}

TEST_F(CaptureCommand, countsWhatIsSaidAgain) {
  captureThree();
  test::sql(folder_.file("a.db"),
            "CREATE TRIGGER full BEFORE INSERT ON events BEGIN SELECT RAISE(ABORT, 'no'); END");
  std::string log;
  for (int i = 0; i < 40'000; ++i) log += kLogLine;
  write("b.log", log);
  const auto [exitCode, output] = run("capture b.log --db a.db");
  EXPECT_EQ(exitCode, 2);
  EXPECT_THAT(output, AllOf(HasSubstr("times more)\n"), HasSubstr(", 40000 rows not stored\n")));
  EXPECT_LT(std::ranges::count(output, '\n'), 20) << output;  // of 40 batches
}

TEST_F(CaptureCommand, drawsItsProgressOnATerminal) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  std::string log;
  for (int i = 0; i < 60'000; ++i) log += kLogLine;
  write("a.log", log);
  EXPECT_THAT(shown("capture a.log --db a.db"), AllOf(HasSubstr("% "), HasSubstr(" left")));
}

TEST_F(CaptureCommand, checksAndMendsTheFullTextIndex) {
  captureThree();
  const auto check = [this](const char* options, int exitCode) {
    const auto outcome = run(fmt::format("check a.db {}", options), "2>&1");
    EXPECT_EQ(outcome.exitCode, exitCode) << outcome.output;
    return outcome.output;
  };
  EXPECT_EQ(check("", 0),
            "a.db: the database is sound, and the full-text index fits the records\n");
  test::sql(folder_.file("a.db"), "DELETE FROM events WHERE seq = 2");
  EXPECT_THAT(check("", 2), AllOf(StartsWith("a.db: the full-text index does not fit the records"),
                                  EndsWith("mend it with --repair\n")));
  EXPECT_THAT(check("--repair", 0), HasSubstr("the full-text index was rebuilt\n"));
  check("", 0);
  EXPECT_EQ(run("check missing.db").exitCode, 2);
}

TEST_F(CaptureCommand, asksBeforeItClears) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  const std::pair<const char*, int> table[] = {{"n", 3}, {"", 3}, {"yep", 3}, {"yes", 0}, {"y", 0}};
  for (const auto& [answer, left] : table) {
    SCOPED_TRACE(answer);
    std::filesystem::remove(folder_.file("a.db"));
    captureThree();
    const auto output = runLine(fmt::format("echo '{}' | script -qec '{} clear a.db' /dev/null",
                                            answer, RUNEFLOW_COMMAND))
                            .output;
    EXPECT_THAT(output, AllOf(HasSubstr("Delete 3 records of a.db? [y/N] "),
                              HasSubstr(left ? "nothing deleted" : "3 records deleted")));
    EXPECT_EQ(run("query a.db --count").output, fmt::format("{}\n", left));
  }
}

TEST_F(CaptureCommand, alignsWhatPeopleRead) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  captureThree();
  const auto output = shownWithoutColour("query a.db");
  // The second column of each kind begins below that of the longest value so far.
  EXPECT_THAT(output, AllOf(HasSubstr(" Net  10"), HasSubstr(" Wifi 11")));
}

TEST_F(CaptureCommand, levelsAreCountedByTheirPrefix) {
  captureThree();
  EXPECT_EQ(run("values a.db level", "").output, "Error\t1\nInfo\t1\nWarning\t1\n");
  EXPECT_EQ(run("values a.db level --prefix wa", "").output, "Warning\t1\n");
  EXPECT_EQ(run("values a.db level --prefix tr", "").exitCode, 1);
  EXPECT_EQ(run("values a.db level --matching tag:Wifi", "").output, "Error\t1\n");
}

}  // namespace
}  // namespace runeflow
