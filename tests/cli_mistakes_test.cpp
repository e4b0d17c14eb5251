// SPDX-License-Identifier: MIT

// What the command answers to mistakes and near misses.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "command_fixture.h"

namespace runeflow {
namespace {

using testing::HasSubstr;

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
       "a quote stays open; all behind it is one word. Close it, or leave it out\n"},
      {"'(low OR nowhere) (gone'", "a parenthesis stays open; close it with )\n"},
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

}  // namespace
}  // namespace runeflow
