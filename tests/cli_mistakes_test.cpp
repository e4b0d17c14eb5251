// SPDX-License-Identifier: MIT

// What the command answers to mistakes and near misses.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>

#include "command_fixture.h"

namespace runeflow {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

struct Row {
  std::string arguments;
  std::string answer;
};

class Mistakes : public test::CommandFixture {};

TEST_F(Mistakes, anEmptyAnswerSaysWhatMayHaveBeenMeant) {
  write("a.log",
        "01-02 03:04:05.678  1  2 I PowerManagerService: start\n"
        "01-02 03:04:05.678  1  2 I PowerManagerService: more\n"
        "01-02 03:04:05.678  1  2 W PowerMonitor: low (battery)\n"
        "01-02 03:04:05.678  1  2 W Disk Cache: http://here and there\n");
  ASSERT_EQ(run("capture a.log --db a.db").exitCode, 0);
  const std::string fields = "the fields are tag, pid, tid and level\n";
  const std::string levels = "the levels are trace, debug, info, warn, error and fatal\n";
  const std::string warnings = " level:warn finds that level and more severe ones\n";
  const Row table[] = {
      {"foo:bar", "there is no field 'foo'; " + fields},
      {"message:low",
       "there is no field 'message', words without a field search the message; " + fields},
      {"time:12", "there is no field 'time', --since and --until choose times; " + fields},
      {"tags:PowerMonitor",
       "there is no field 'tags'; did you mean tag? The fields are tag, pid, "
       "tid and level\n"},
      {"level:W", "there is no level 'W';" + warnings},
      {"level:3", "there is no level '3';" + warnings},
      {"level:loud", "there is no level 'loud'; " + levels},
      {"'level>=warn'", "'level>=warn' is searched as text;" + warnings},
      {"level=W", "'level=W' is searched as text;" + warnings},
      {"level:=warn", "'level:=warn' is searched as text;" + warnings},
      {"'level<error'",
       "'level<error' is searched as text; NOT level:error finds what is less severe\n"},
      {"tag=PowerMonitor",
       "'tag=PowerMonitor' is searched as text; a condition on a field is tag:PowerMonitor\n"},
      {"'pid!=4'", "'pid!=4' is searched as text; a condition on a field is NOT pid:4\n"},
      {"tag: PowerMonitor", "'tag:' lacks a value; write tag:VALUE without a blank\n"},
      {"tag:powermanagerservice",
       "no record has the tag 'powermanagerservice'; did you mean "
       "tag:PowerManagerService?\n"},
      {"'tag:PowerM*'",
       "no record has the tag 'PowerM*'; did you mean tag:PowerManagerService or "
       "tag:PowerMonitor?\n"},
      {"low tag:disk --count", "no record has the tag 'disk'; did you mean tag:\"Disk Cache\"?\n"},
      {"start and nothing", "'and' is searched as a word; the operator is AND\n"},
      {"nothing or nowhere", "'or' is searched as a word; the operator is OR\n"},
      {"low not nowhere", "'not' is searched as a word; the operator is NOT\n"},
      {"'\"low nothing'",
       "a quote is not closed, so that the rest of the line is one word; close or remove it\n"},
      {"'(low OR nowhere) (gone'", "a parenthesis is not closed; close it with )\n"},
      // Nothing of these reads like a mistake, or the word is quoted, or another part is the
      // reason.
      {"nowhere", ""},
      {"https://nowhere", ""},
      {"std::nowhere", ""},
      {"14:05", ""},
      {"'\"and\" nowhere'", ""},
      {"tag:PowerMonitor nowhere", ""},
      {"tag:Nothing", ""},
      {"nowhere NOT tag:power", ""},
  };
  for (const auto& [arguments, answer] : table) {
    SCOPED_TRACE(arguments);
    const auto expected = answer.empty() ? "" : "runeflow: " + answer;
    const auto [exitCode, output] = run("query a.db " + arguments, "2>&1 >/dev/null");
    EXPECT_EQ(exitCode, 1);
    EXPECT_EQ(output, expected);
  }
  EXPECT_EQ(run("values a.db tag --matching level:W").output,
            "runeflow: there is no level 'W';" + warnings);
  // What finds something is no mistake.
  EXPECT_EQ(run("query a.db here and there", "2>&1 >/dev/null").output, "");
}

TEST_F(Mistakes, aLineThatCannotBeReadNamesTheOneThatWasMeant) {
  captureThree();
  const Row table[] = {
      {"", "name a command: capture, query, values, "},
      {"qurey a.db x", "there is no command 'qurey'; did you mean query?"},
      {"Info a.db", "there is no command 'Info'; did you mean info?"},
      {"nonsense", "there is no command 'nonsense'; the commands are capture, query, "},
      {"a.db disk", "'a.db' is a database; query it with: runeflow query a.db"},
      {"a.log",
       "'a.log' is logcat threadtime text; capture it first: runeflow capture a.log --db "
       "a.log.db"},
      {"--verison", "there is no option --verison; did you mean --version? See runeflow --help"},
      {"query a.db x --frist 1",
       "there is no option --frist; did you mean --first? See runeflow query --help"},
      {"query a.db x --frist=1", "there is no option --frist; did you mean --first?"},
      {"query --jsno a.db", "there is no option --jsno; did you mean --json?"},
      {"values a.db tag --limti 3",
       "there is no option --limti; did you mean --limit? See runeflow values --help"},
      {"info a.db --nothing-like-it",
       "there is no option --nothing-like-it; see runeflow info --help"},
      {"values a.db", "FIELD is required; see runeflow values --help"},
      {"capture a.log", "--db is required; see runeflow capture --help"},
  };
  for (const auto& [arguments, answer] : table) {
    SCOPED_TRACE(arguments);
    const auto [exitCode, output] = run(arguments);
    EXPECT_EQ(exitCode, 2);
    EXPECT_THAT(output, StartsWith("runeflow: " + answer));
    EXPECT_EQ(std::ranges::count(output, '\n'), 1) << output;
  }
  // The last of two equal options counts, and "--" ends the options.
  EXPECT_EQ(run("query a.db disk --first 1 --count --first=2 --count 2>&1").exitCode, 2);
  EXPECT_EQ(run("query a.db disk --first 1 --first 2 | cut -f1").output, "1\n3\n");
  EXPECT_EQ(run("query a.db --first 1 -- disk -gone --first | cut -f1").output, "");
  EXPECT_EQ(run("query a.db --first 1 -- disk -gone | cut -f1").output, "3\n");
  EXPECT_EQ(run("query --count -- a.db -gone").output, "1\n");
}

TEST_F(Mistakes, aFileThatCannotBeCapturedIsNamedWithWhatToDo) {
  captureThree();
  const std::string brief =
      "is logcat text in the layout 'brief'; print it with logcat -v threadtime";
  const std::string version2 = "is a recording of DLT protocol version 2";
  const std::pair<std::string, std::string> files[] = {
      {"I/Net  ( 1234): up\n", brief},
      {"--------- beginning of main\nI/Net( 12): up\n", brief},
      {"I( 1234) up  (Net)\n", "the layout 'process'"},
      {"I( 1234: 1240) up\n", "the layout 'thread'"},
      {"I/Net  : up\n", "the layout 'tag'"},
      {"01-02 03:04:05.678 I/Net( 1234): up\n", "the layout 'time'"},
      {"[ 01-02 03:04:05.678  1234: 1240 I/Net ]\nup\n", "the layout 'long'"},
      {"2026-01-02 03:04:05.678  1234  1240 I Net: up\n", "the layout 'year'"},
      {"01-02 03:04:05.678 10123  1234  1240 I Net: up\n", "the layout 'uid'"},
      {"01-02 03:04:05.678901  1234  1240 I Net: up\n", "the layout 'usec'"},
      {"01-02 03:04:05.678 +0100  1234  1240 I Net: up\n", "the layout 'zone'"},
      {"1767323045.678  1234  1240 I Net: up\n", "the layout 'epoch'"},
      {"   12345.678  1234  1240 I Net: up\n", "the layout 'monotonic'"},
      {std::string("DLT\x02") + std::string(40, 'x'), version2},
      {std::string("DLT\x01") + std::string(12, '\0') + "\x40" + std::string(40, 'x'), version2},
      {"", "is empty; there is nothing to capture"},
      {"PK\x03\x04rest",
       "is a zip archive; unpack it into the command: unzip -p x.log LOG | "
       "runeflow capture - --db DB"},
      {"no log\n", "is neither a DLT recording nor logcat threadtime text"},
  };
  for (const auto& [text, answer] : files) {
    SCOPED_TRACE(text);
    write("x.log", text);
    const auto [exitCode, output] = run("capture x.log --db x.db");
    EXPECT_EQ(exitCode, 2);
    EXPECT_THAT(output, AllOf(StartsWith("runeflow: x.log is "), HasSubstr(answer)));
    EXPECT_EQ(run("capture - --db x.db < x.log").exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(folder_.file("x.db")));
  }
  const Row table[] = {
      {"capture a.db --db b.db",
       "a.db is a database, not a log; runeflow query a.db asks it, and "
       "runeflow capture LOG --db a.db adds to it"},
      {"query a.log x",
       "a.log is logcat threadtime text, not a database; capture it first: "
       "runeflow capture a.log --db a.log.db"},
      {"capture a.log --db a.log", "a.log is logcat threadtime text, not a database; name another"},
  };
  for (const auto& [arguments, answer] : table) {
    SCOPED_TRACE(arguments);
    const auto [exitCode, output] = run(arguments);
    EXPECT_EQ(exitCode, 2);
    EXPECT_THAT(output, StartsWith("runeflow: " + answer));
  }
  // A format that is named overrides what the file looks like, and warns.
  write("x.log", files[0].first);
  EXPECT_THAT(run("capture x.log --db x.db --format logcat").output, HasSubstr("x.log " + brief));
  EXPECT_EQ(run("query x.db up --count").output, "1\n");
  EXPECT_THAT(run("capture - --db x.db --format logcat < a.log").output, Not(HasSubstr("layout")));
  EXPECT_THAT(run("capture a.log --db y.db --format dlt").output,
              HasSubstr("a.log looks like logcat threadtime text, not a DLT recording"));
}

TEST_F(Mistakes, packedAndForeignTextIsReadAsItsLog) {
  std::string log;
  for (int i = 0; i < 3'000; ++i) {
    log += fmt::format("01-02 03:04:05.678  1  {} I Net: Gr\u00f6\u00dfe \U0001F600 {}\n", i, i);
  }
  write("a.log", log);
  ASSERT_EQ(run("capture a.log --db a.db").exitCode, 0);
  const auto expected = run("query a.db | cut -f2-").output;
  const Row table[] = {
      {"gzip -c a.log", "gz"},
      {"true; (head -c 50000 a.log | gzip -c; tail -c +50001 a.log | gzip -1c; head -c 512 "
       "/dev/zero)",
       "gz"},
      {"true; (printf \"\\357\\273\\277\"; cat a.log)", "mark"},
      {"iconv -f UTF-8 -t UTF-16 a.log", "UTF-16"},
      {"iconv -f UTF-8 -t UTF-16LE a.log", "UTF-16LE"},
      {"iconv -f UTF-8 -t UTF-16BE a.log", "UTF-16BE"},
      {"iconv -f UTF-8 -t UTF-32 a.log", "UTF-32"},
      {"iconv -f UTF-8 -t UTF-16 a.log | gzip -c", "packed UTF-16"},
  };
  for (const auto& [command, name] : table) {
    SCOPED_TRACE(command);
    ASSERT_EQ(runLine(command + " > b.log").exitCode, 0);
    for (const auto* way : {"b.log", "- <b.log", "b.log --format logcat"}) {
      SCOPED_TRACE(way);
      const auto [exitCode, output] = run(fmt::format("capture {} --db b.db", way));
      EXPECT_EQ(exitCode, 0) << output;
      EXPECT_TRUE(run("query b.db | cut -f2-").output == expected);
      runLine("rm b.db*");
    }
  }
  // What ends early is stored as far as it goes.
  ASSERT_EQ(runLine("gzip -c a.log | head -c 5000 > b.log").exitCode, 0);
  const auto [exitCode, output] = run("capture b.log --db b.db");
  EXPECT_EQ(exitCode, 2);
  EXPECT_THAT(output, HasSubstr("cannot read b.log to its end: its gzip data ends early"));
  EXPECT_NE(run("query b.db --count").output, "0\n");
}

TEST_F(Mistakes, aFileIsCapturedTwiceOnlyIfThatIsMeant) {
  std::string log;
  for (int i = 0; i < 20'000; ++i) {
    log += fmt::format("01-02 03:04:05.{:03}  1  2 I Net: line {} of many that fill a file\n",
                       i % 500, i);
  }
  write("a.log", log);
  write("b.log", log + "01-02 03:04:06.000  1  2 I Net: and one more\n");
  write("c.log", "01-02 03:04:05.000  1  2 I Net: alone\nno threadtime\n");
  runLine("gzip -c a.log > a.gz");
  const std::string again = "is captured in a.db already; --again captures it once more\n";
  const auto captured = [&](const std::string& arguments) {
    const auto [exitCode, output] = run(fmt::format("capture {} --db a.db", arguments));
    const bool isRefused = output.find(again) != std::string::npos;
    EXPECT_EQ(exitCode, isRefused ? 2 : 0) << output;
    return !isRefused;
  };
  EXPECT_TRUE(captured("a.log"));
  EXPECT_TRUE(captured("c.log"));
  EXPECT_FALSE(captured("a.log"));
  EXPECT_FALSE(captured("c.log"));
  EXPECT_FALSE(captured("a.gz"));
  EXPECT_TRUE(captured("b.log"));
  EXPECT_EQ(run("query a.db --count").output, "40003\n");
  EXPECT_TRUE(captured("c.log --again"));
  EXPECT_FALSE(captured("a.log c.log"));
  EXPECT_EQ(run("query a.db --count").output, "40005\n");
}

}  // namespace
}  // namespace runeflow
