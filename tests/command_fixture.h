// SPDX-License-Identifier: MIT

// Runs the built command as a user does.
#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "runeflow/platform/file_descriptor.h"
#include "support.h"

namespace runeflow::test {

struct Outcome {
  int exitCode;
  std::string output;
};

class CommandFixture : public testing::Test {
 protected:
  // Runs in a folder of its own; `redirections` joins or drops standard error.
  Outcome run(const std::string& arguments, const std::string& redirections = "2>&1") const {
    return runLine(fmt::format("{} {} {}", RUNEFLOW_COMMAND, arguments, redirections));
  }
  static bool hasTerminals() {
    return FileDescriptor(::posix_openpt(O_RDWR | O_NOCTTY)).get() >= 0;
  }
  // With a terminal for its output.
  std::string shown(const std::string& arguments) const {
    return runLine(
               fmt::format("script -qec '{} {}' /dev/null </dev/null", RUNEFLOW_COMMAND, arguments))
        .output;
  }
  // With a terminal as well, but without colours.
  std::string shownWithoutColour(const std::string& arguments) const {
    return runLine(fmt::format("NO_COLOR=1 PAGER=cat script -qec '{} {}' /dev/null </dev/null",
                               RUNEFLOW_COMMAND, arguments))
        .output;
  }
  Outcome runLine(const std::string& command) const {
    const auto line = fmt::format(
        "cd {} && unset RUNEFLOW_OPTS && export TERM=xterm XDG_CONFIG_HOME=/ && TZ=UTC0 {}",
        folder_.file(""), command);
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
          "01-02 03:04:07.000  11  21 E Wifi: disk gone\r\n");
    EXPECT_EQ(run("capture a.log --db a.db").exitCode, 0);
  }

  TemporaryFolder folder_;
};

}  // namespace runeflow::test
