// SPDX-License-Identifier: MIT

// Runs the example hosts (programs that use the library) as a user does, and checks the code that
// the documentation quotes.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "runeflow/platform/file_descriptor.h"
#include "support.h"

namespace runeflow {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string contents(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return std::move(text).str();
}

// Returns the contents of the fenced code blocks of `language` in the file `page`.
std::vector<std::string> blocks(const std::string& page, const std::string& language) {
  const auto text = contents(page);
  const auto fence = "```" + language + "\n";
  std::vector<std::string> found;
  for (auto at = text.find(fence); at != std::string::npos; at = text.find(fence, at)) {
    at += fence.size();
    found.push_back(text.substr(at, text.find("```", at) - at));
  }
  return found;
}

TEST(Documentation, quotesTheExamplesAsTheyAreBuilt) {
  const std::pair<const char*, const char*> table[] = {
      {RUNEFLOW_SOURCE "/README.md", RUNEFLOW_SOURCE "/examples/minimal_host.cpp"},
      {RUNEFLOW_SOURCE "/docs/hosting.md", RUNEFLOW_SOURCE "/examples/live_tail.cpp"},
  };
  for (const auto& [page, example] : table) {
    SCOPED_TRACE(page);
    const auto quoted = blocks(page, "cpp");
    ASSERT_EQ(quoted.size(), 1U);
    EXPECT_THAT(contents(example), HasSubstr(quoted.front()));
  }
}

TEST(Documentation, showsSqlThatRunsOnADatabase) {
  const test::TemporaryFolder folder;
  const auto database = folder.file("sample.db");
  const auto command =
      std::string(RUNEFLOW_MINIMAL_HOST) + " " + RUNEFLOW_SAMPLE_LOG + " " + database + " nothing";
  ASSERT_EQ(std::system(command.c_str()), 0);
  const auto quoted = blocks(RUNEFLOW_SOURCE "/docs/database.md", "sql");
  EXPECT_FALSE(quoted.empty());
  for (const auto& block : quoted) {
    std::istringstream statements(block);
    for (std::string statement; std::getline(statements, statement, ';');) {
      if (statement.find_first_not_of(" \n") == std::string::npos) continue;
      SCOPED_TRACE(statement);
      const auto rows = test::sql(database, statement);
      ASSERT_FALSE(rows.empty());
      EXPECT_THAT(rows.front(), Not(HasSubstr("error: ")));
    }
  }
}

// Listens on a free loopback port, in place of a DLT daemon.
class LoopbackServer {
 public:
  LoopbackServer() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(listener_.get(), generic, size), 0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    EXPECT_EQ(::getsockname(listener_.get(), generic, &size), 0);
    port_ = ntohs(address.sin_port);
  }
  std::string port() const { return std::to_string(port_); }

  FileDescriptor accept() const {
    pollfd waiting{.fd = listener_.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&waiting, 1, 10'000), 1) << "no connection within 10 s";
    return FileDescriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  FileDescriptor listener_;
  std::uint16_t port_ = 0;
};

// Sends a DLT message without an extended header. The text of its record is the payload in
// hexadecimal.
void send(const FileDescriptor& connection, std::uint8_t counter, std::uint8_t payload) {
  const std::array<std::uint8_t, 5> message{0x20, counter, 0, 5, payload};
  EXPECT_EQ(::write(connection.get(), message.data(), message.size()), 5);
}

TEST(Examples, liveTailPrintsNewRecordsReconnectsAndEndsOnCtrlC) {
  const test::TemporaryFolder folder;
  const LoopbackServer server;
  const auto seen = folder.file("seen");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, seen.c_str(), O_WRONLY | O_CREAT, 0600);
  const std::array<std::string, 5> words{RUNEFLOW_LIVE_TAIL, "127.0.0.1", server.port(),
                                         folder.file("a.db"), "NOT aa"};
  std::array<char*, 6> arguments{};
  std::ranges::transform(words, arguments.begin(),
                         [](const auto& word) { return const_cast<char*>(word.c_str()); });
  pid_t child = 0;
  ASSERT_EQ(::posix_spawn(&child, RUNEFLOW_LIVE_TAIL, &actions, nullptr, arguments.data(), environ),
            0);
  posix_spawn_file_actions_destroy(&actions);

  auto connection = server.accept();
  send(connection, 1, 0xaa);
  send(connection, 2, 0xbb);
  connection.reset();
  connection = server.accept();
  // The reader stores an incomplete batch when a record arrives at least 33 ms after it last stored
  // one, or when the stream ends. Send records until one appears.
  for (std::uint8_t i = 3; i < 200 && !contents(seen).contains("cc"); ++i, ::usleep(50'000)) {
    send(connection, i, 0xcc);
  }
  EXPECT_EQ(::kill(child, SIGINT), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_THAT(contents(seen), AllOf(StartsWith("2 "), HasSubstr("bb"), HasSubstr("\n3 "),
                                    HasSubstr("cc"), Not(HasSubstr("aa"))));
}

TEST(Examples, virtualListShowsAnyPartOfTheMatches) {
  const test::TemporaryFolder folder;
  const auto log = folder.file("a.log");
  std::ofstream lines(log);
  for (int i = 0; i < 10'000; ++i) {
    const auto* word = i % 2 == 0 ? "even" : "odd";
    lines << "03-17 14:05:06.007  1  2 I T: " << word << ' ' << i << '\n';
  }
  lines.close();
  const auto database = folder.file("a.db");
  const auto captures =
      std::string(RUNEFLOW_MINIMAL_HOST) + " " + log + " " + database + " nothing";
  ASSERT_EQ(std::system(captures.c_str()), 0);

  const auto shown = [&](const std::string& query, const std::string& rows) {
    const auto out = folder.file("shown");
    const auto lists = "printf '%s\n' " + rows + " | " + RUNEFLOW_VIRTUAL_LIST + " " + database +
                       " '" + query + "' >" + out;
    EXPECT_EQ(std::system(lists.c_str()), 0);
    return contents(out);
  };
  // A block of 4,096 records holds 2,048 even ones.
  const auto even = shown("even", "0 2047 4995 5000");
  EXPECT_THAT(even, StartsWith("5000 matches"));
  EXPECT_THAT(even, HasSubstr("\n0 even 0\n1 even 2\n"));
  EXPECT_THAT(even, HasSubstr("\n19 even 38\n2047 even 4094\n2048 even 4096\n"));
  EXPECT_THAT(even, testing::EndsWith("\n4995 even 9990\n4996 even 9992\n4997 even 9994\n"
                                      "4998 even 9996\n4999 even 9998\n"));
  EXPECT_THAT(shown("", "9999"), testing::EndsWith("9999 odd 9999\n"));
  EXPECT_THAT(shown("neither", "0"), StartsWith("0 matches"));
}

}  // namespace
}  // namespace runeflow
