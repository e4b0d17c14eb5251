// SPDX-License-Identifier: MIT

// The command as a user runs it: the built program, its output and its exit codes.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <thread>

#include "command_fixture.h"
#include "host/terminal_text.h"
#include "runeflow/platform/file_descriptor.h"
#include "stand_in_server.h"
#include "support.h"

namespace runeflow {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

using test::deviceList;
using test::kLogLine;
using test::Outcome;
using test::StandInServer;
using test::withLength;

class Command : public test::CommandFixture {};

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
  EXPECT_EQ(run("values a.db level --limit 1", "").output, "Error\t1\n");
}

TEST_F(Command, showsPeopleAlignedRecordsWithTheirWordsMarked) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  captureThree();
  const auto withoutYear = [](std::string text) { return text.substr(text.find("01-02")); };
  const std::string marked = "\x1b[1;38;5;16;48;5;222mdisk\x1b[0m";
  EXPECT_EQ(
      withoutYear(shown("query a.db DISK --last 1")),
      "01-02 03:04:07.000\x1b[0m \x1b[38;5;231;48;5;160mE\x1b[0m Wifi 11  " + marked + " gone\r\n");
  EXPECT_THAT(shown("query a.db disk --first 1"), HasSubstr(" Net 10  " + marked + " full, \""));
  EXPECT_THAT(shown("query a.db is OR disk --last 1"), HasSubstr(marked + " gone"));
  EXPECT_THAT(shown("query a.db \"dis gon\" --last 1"),
              HasSubstr("\x1b[1;38;5;16;48;5;222mdisk\x1b[0m \x1b[1;38;5;16;48;5;222mgone\x1b[0m"));
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
  run("capture a.log --db a.db --again");
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
       "text is neither a DLT recording nor logcat threadtime text; name its kind with "
       "--format"},
      {"capture rec.dlt --db a.db", "a.db already holds logcat records"},
      {"capture a.log rec.dlt --db b.db", "a.log holds logcat records but rec.dlt holds dlt"},
      {"capture a.log --db text", "text is not a database"},
      {"capture a.log --db b.db --max-bytes 9999999999G", "'9999999999G' is not a size"},
      {"capture a.log --db b.db --reconnect", "--reconnect needs --dlt or --adb"},
      {"capture --db b.db", "name one source to capture"},
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
      {"nonsense", "there is no command 'nonsense'"},
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
  for (int left = 1; left > 0; ::usleep(1'000)) ASSERT_EQ(::ioctl(ends[1], FIONREAD, &left), 0);
  const auto waitsForSignals = [child] {
    std::ifstream status(fmt::format("/proc/{}/status", child));
    for (std::string row; std::getline(status, row);) {
      constexpr std::string_view kBlocked = "SigBlk:";
      if (row.starts_with(kBlocked))
        return std::stoull(row.substr(kBlocked.size()), nullptr, 16) & 2;
    }
    return 0ULL;
  };
  for (int left = 1'000; left > 0 && waitsForSignals() == 0; --left) ::usleep(10'000);
  ::usleep(100'000);  // until the reader has the line
  ::kill(child, SIGINT);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(run("query a.db last --count", "").output, "1\n");
}

TEST_F(Command, anInterruptEndsACaptureThatWaitsForALock) {
  captureThree();
  {
    std::ofstream big(folder_.file("big.log"), std::ios::binary);
    for (int i = 0; i < 40'000; ++i) {
      big << "01-02 03:04:05.678  10  20 W Net: " << std::string(60, 'x') << '\n';
    }
  }
  const test::OtherConnection lock(folder_.file("a.db"), "BEGIN IMMEDIATE");
  const auto line = fmt::format("cd {} && exec {} capture big.log --db a.db 2>said",
                                folder_.file(""), RUNEFLOW_COMMAND);
  const pid_t child = ::fork();
  if (child == 0) {
    ::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
    ::_exit(127);
  }
  ::usleep(700'000);  // its pipe is full
  const auto begin = std::chrono::steady_clock::now();
  ::kill(child, SIGINT);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  // A second, and patience with a busy machine: a lock is waited for 5 s, batch by batch.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
  EXPECT_THAT(runLine("cat said").output, AllOf(HasSubstr("locked"), HasSubstr("not stored")));
  EXPECT_THAT(run("check a.db").output,
              AllOf(HasSubstr("database is locked"), Not(HasSubstr("--repair"))));
}

TEST_F(Command, aDamagedDatabaseIsNotAShorterOne) {
  captureThree();
  // As if the records had been lost from the table but not from its indexes.
  test::sql(folder_.file("a.db"),
            "CREATE TABLE other(seq INTEGER PRIMARY KEY); PRAGMA writable_schema = ON; "
            "UPDATE sqlite_schema SET rootpage = (SELECT rootpage FROM sqlite_schema WHERE "
            "name = 'other') WHERE name = 'events'");
  const auto [exitCode, output] = run("query a.db tag:Net");
  EXPECT_EQ(exitCode, 2);
  EXPECT_THAT(output, AllOf(HasSubstr("a.db"), HasSubstr("runeflow check tells more")));
}

// Sets a terminal's title and colour, by C0 and C1; turns the text around; hides a character.
constexpr std::string_view kHostile =
    "\x1b]0;t\x07\x1b[31m\u009b31m\u202e\ufeff\u00ad\U000e0041\x7f";
// As kHostile, and forges a second line. For words that are not split at white space.
const std::string kForging = std::string(kHostile) +
                             "\x9b"
                             "2J\b\r\nruneflow: all is well\t\u2028";

std::string shellWord(std::string_view word) {
  return fmt::format("'{}'", word);
}

// Every line feed ends a line of the command's own. The terminal adds a return to it, and CSV has
// one already.
void expectHarmless(const std::string& output) {
  const auto text = std::regex_replace(output, std::regex("\r*\n"), "|");
  EXPECT_EQ(text, host::terminalText(text));
}

TEST_F(Command, hostileWordsOfTheCommandLineAreEscaped) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  captureThree();
  const std::string file = kForging + ".file";
  const std::string database = kForging + "m.db";
  const std::string other = kForging + ".other";
  write(file, "no log at all\n");
  write(kForging + ".dlt", std::string("DLT\x01") + std::string(12, '\0'));
  EXPECT_EQ(run("capture a.log --db " + shellWord(database)).exitCode, 0);
  write(other, "");
  test::sql(folder_.file(other), "CREATE TABLE t(x)");
  const std::string word = shellWord(kForging);
  const std::string table[] = {
      "capture " + word + " --db b.db",
      "capture " + shellWord(file) + " --db b.db",
      "capture a.log " + shellWord(kForging + ".dlt") + " --db b.db",
      "capture a.log --db " + shellWord(kForging + "/b.db"),
      "capture a.log --db " + shellWord(file),
      "capture a.log --db " + shellWord(other),
      "capture " + shellWord(kForging + ".dlt") + " --db " + shellWord(database),
      "capture a.log --db b.db --format " + word,
      "capture a.log --db b.db --max-bytes " + word,
      "capture --db b.db --dlt " + shellWord(kForging + ":0"),
      "capture --db b.db --dlt " + shellWord(kForging + std::string(300, 'x')),
      "capture --db b.db --adb " + shellWord(kForging + ":x"),
      "capture --db b.db --adb " + shellWord(kForging + std::string(300, 'x')),
      "capture --db b.db --" + word,
      "query " + word + " x",
      "query " + shellWord(file) + " x",
      "query " + shellWord(other) + " x",
      "query a.db x --source " + word,
      "query a.db x --" + word,
      "query a.db x --first " + word,
      "query a.db x --after " + word,
      "values a.db " + word,
      "values a.db tag --limit " + word,
      "info " + word,
      "info a.db " + word,
      "clear " + shellWord(database) + " </dev/null",
      "clear a.db --source " + word,
      word,
  };
  for (const auto& arguments : table) {
    SCOPED_TRACE(arguments);
    const auto [exitCode, output] = run(arguments);
    EXPECT_EQ(exitCode, 2);
    EXPECT_EQ(std::ranges::count(output, '\n'), 1) << output;
    expectHarmless(output);
  }
  for (const auto& arguments : {"info *m.db", "info *m.db --json", "clear *m.db"}) {
    SCOPED_TRACE(arguments);
    const auto output = shownWithoutColour(arguments);
    EXPECT_THAT(output, HasSubstr("all is well"));
    expectHarmless(output);
  }
  const auto help =
      runLine(fmt::format("bash -c 'exec -a \"$0\" {} --help' {}", RUNEFLOW_COMMAND, word));
  EXPECT_EQ(help.exitCode, 0);
  expectHarmless(help.output);
}

TEST_F(Command, hostileRecordsAreEscaped) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  write("a.log", fmt::format("01-02 03:04:05.678  1  2 W {0}: disk {0}\x9b 2J\r{1}\n", kHostile,
                             "\u2028\u2066"));
  EXPECT_EQ(run("capture a.log --db a.db").exitCode, 0);
  // A decoder stores valid UTF-8 only; a database of somebody else may hold anything.
  test::sql(folder_.file("a.db"),
            "INSERT INTO events(ts, level, s0, message) VALUES(0, 2, CAST(x'9b1b5b41c2' AS TEXT), "
            "CAST(x'6469736b209b311b5b41e280' AS TEXT))");
  for (const auto* arguments :
       {"query a.db level:info", "query a.db level:info --json", "query a.db level:info --csv",
        "query a.db level:info --pager", "query a.db level:info --csv --pager", "values a.db tag",
        "values a.db tag --json"}) {
    SCOPED_TRACE(arguments);
    const auto output = shownWithoutColour(arguments);
    EXPECT_THAT(output, HasSubstr("31m"));
    expectHarmless(output);
  }
  EXPECT_THAT(run("query a.db disk --json").output, HasSubstr("\\u001b[31m\\u009b31m\u202e\ufeff"));
  EXPECT_THAT(run("query a.db disk --csv").output, HasSubstr(kHostile));
}

TEST_F(Command, hostileDatabasesAreEscaped) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  captureThree();
  const auto ask = [this](const std::string& statement) {
    EXPECT_THAT(test::sql(folder_.file("a.db"), statement), testing::IsEmpty());
  };
  const auto expectHarmlessly = [this](const std::string& arguments) {
    SCOPED_TRACE(arguments);
    for (const auto& output : {run(arguments).output, shownWithoutColour(arguments)}) {
      EXPECT_THAT(output, HasSubstr("31m"));
      expectHarmless(output);
    }
  };
  ask(fmt::format("DROP INDEX i_s0; CREATE INDEX \"{}\" ON events(s0)", kForging));
  expectHarmlessly("info a.db --source logcat");
  EXPECT_THAT(run("info a.db --source logcat --json").output, HasSubstr("\\u001b[31m"));
  expectHarmless(shownWithoutColour("info a.db --source logcat --json"));
  expectHarmlessly("query a.db tag:Net --plan --source logcat");
  // Reported by the library's log.
  ask(
      fmt::format("CREATE TRIGGER d BEFORE DELETE ON events BEGIN SELECT RAISE(ABORT, '{0}'); END;"
                  "CREATE TRIGGER i BEFORE INSERT ON events BEGIN SELECT RAISE(ABORT, '{0}'); END",
                  kForging));
  expectHarmlessly("clear a.db --source logcat --yes");
  expectHarmlessly("capture a.log --db a.db --again");
  // Reported by SQLite as it opens the database.
  ask(
      fmt::format("PRAGMA writable_schema = ON; INSERT INTO sqlite_schema VALUES('table', '{0}', "
                  "'{0}', 0, 'CREATE TABLE (')",
                  kForging));
  expectHarmlessly("info a.db");
  expectHarmlessly("capture a.log --db a.db --again");
}

TEST_F(Command, hostileServersAreEscaped) {
  const auto name = std::string(kHostile);  // serials and models end at white space
  const auto two = deviceList(fmt::format("{0}1 device model:{0}\n{0}2 device model:{0}\n", name));
  const auto failure = "FAIL" + withLength(kForging);
  const struct {
    const char* name;
    StandInServer::Connections connections;
    std::string options;
    int exitCode = 2;
  } table[] = {
      {"FAIL for the list", {{failure}}, ""},
      {"no status", {{"\x1b[31"}}, ""},
      {"truncated", {{"\x1b[3Jffff\x1b[31m"}}, ""},
      {"state", {{deviceList(name + " " + name)}}, ""},
      {"unknown serial", {{two}}, "--serial nobody"},
      {"hostile serial", {{two}}, "--serial " + shellWord(kForging)},
      {"FAIL for the device", {{two}, {failure}}, ""},
      {"not found", {{two}, {"FAIL" + withLength(kForging + "not found")}}, ""},
      {"FAIL for the command", {{two}, {"OKAY", failure}}, ""},
      {"hang-up", {{two}, {"OKAY"}}, "--command " + shellWord(kForging)},
      {"one of two", {{two}, {"OKAY", "OKAY" + kLogLine}}, "", 0},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    StandInServer server(row.connections);
    const auto [exitCode, output] =
        run(fmt::format("capture --db a.db --adb {} {}", server.address(), row.options));
    EXPECT_EQ(exitCode, row.exitCode);
    EXPECT_GE(std::ranges::count(output, '\n'), 1);
    expectHarmless(output);
  }
}

TEST_F(Command, listsTheDevicesOfAHostileServer) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  EXPECT_EQ(run("sources", "2>/dev/full >out").exitCode, 0);
  EXPECT_THAT(runLine("cat out").output, HasSubstr("machine"));
  const auto devices =
      deviceList(fmt::format("{0}1 device model:{0}\nemulator-{0} device model:{0}\n", kHostile));
  constexpr std::uint16_t kAdbPort = 5037;  // the only one that `sources` asks
  StandInServer server({{devices}, {devices}, {"FAIL" + withLength(kForging)}}, kAdbPort);
  if (!server.listens()) GTEST_SKIP() << "another adb server uses port 5037";
  for (const auto* arguments : {"sources", "sources --json", "sources"}) {
    SCOPED_TRACE(arguments);
    const auto output = shownWithoutColour(arguments);
    EXPECT_THAT(output, HasSubstr("31m"));
    expectHarmless(output);
  }
}

TEST_F(Command, nothingDependsOnStandardError) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  const FileDescriptor unread(ends[1]);
  ::close(ends[0]);
  for (const auto& target :
       {std::string("2>/dev/full"), std::string("2>&-"), fmt::format("2>&{}", unread.get())}) {
    SCOPED_TRACE(target);
    captureThree();
    EXPECT_EQ(run("capture a.log --db b.db --again", target).exitCode, 0);
    EXPECT_EQ(run("query missing.db x", target).exitCode, 2);
    EXPECT_EQ(run("query a.db x --first 0", target).exitCode, 2);
    EXPECT_EQ(run("clear a.db </dev/null", target).exitCode, 2);
    EXPECT_EQ(run("clear a.db --yes", target).exitCode, 0);
    EXPECT_EQ(run("query a.db --count", target).output, "0\n");
  }
}

TEST_F(Command, aLiveCaptureOutlivesItsStandardError) {
  const auto devices = deviceList("a device\nb device\n");
  for (const auto* target : {"/dev/full", "&-"}) {
    SCOPED_TRACE(target);
    // After a reconnect, the device sends its newest records again. They are stored once.
    std::string both = kLogLine + kLogLine;
    both.insert(both.size() - 1, " again");
    StandInServer server(
        {{devices}, {"OKAY", "OKAY" + kLogLine}, {devices}, {"OKAY", "OKAY" + both}});
    const auto line =
        fmt::format("cd {} && exec {} capture --adb {} --db live.db --reconnect >/dev/null 2>{}",
                    folder_.file(""), RUNEFLOW_COMMAND, server.address(), target);
    const pid_t child = ::fork();
    if (child == 0) {
      ::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
      ::_exit(127);
    }
    // The second record comes over the second connection.
    for (int left = 500; left > 0 && run("query live.db --count", "2>&1").output != "2\n"; --left) {
      ::usleep(20'000);
    }
    ::kill(child, SIGINT);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(run("clear live.db --yes").output, "runeflow: 2 records deleted\n");
    EXPECT_EQ(server.finish(), "") << "a sentence went to the device";
  }
}

}  // namespace
}  // namespace runeflow
