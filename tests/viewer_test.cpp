// SPDX-License-Identifier: MIT

// `runeflow view` as a browser sees it: the running command, asked in plain HTTP.
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "host/query_words.h"
#include "runeflow/platform/file_descriptor.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "support.h"

namespace runeflow {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;
using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

#ifdef __SANITIZE_THREAD__
constexpr auto kEndsWithin = 5s;  // ThreadSanitizer makes the end of a process slow
#else
constexpr auto kEndsWithin = 1s;
#endif

// A TCP connection to a port of this machine.
class Connection {
 public:
  explicit Connection(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  void send(std::string_view text) const {
    EXPECT_EQ(::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  // Reads until `isDone` accepts what has arrived, the peer closes or `wait` is over.
  std::string read(const std::function<bool(const std::string&)>& isDone,
                   std::chrono::milliseconds wait = 10s) const {
    const auto until = Clock::now() + wait;
    std::string text;
    std::array<char, 65'536> piece{};
    while (!isDone(text) && Clock::now() < until) {
      pollfd waiting{.fd = fd_.get(), .events = POLLIN, .revents = 0};
      if (::poll(&waiting, 1, 50) <= 0) continue;
      const auto size = ::recv(fd_.get(), piece.data(), piece.size(), 0);
      if (size <= 0) break;
      text.append(piece.data(), static_cast<std::size_t>(size));
    }
    return text;
  }

 private:
  FileDescriptor fd_;
};

struct Answer {
  int status = 0;
  std::string head;
  std::string body;
  Json json() const { return Json::parse(body, nullptr, false); }
};

Answer parsed(const std::string& text) {
  const auto end = text.find("\r\n\r\n");
  if (end == std::string::npos) return {0, text, ""};
  return {std::atoi(text.c_str() + 9), text.substr(0, end), text.substr(end + 4)};
}

// A server on a free port of this machine, which accepts connections and does what a test wants.
class Peer {
 public:
  Peer() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(fd_.get(), any, size), 0);
    EXPECT_EQ(::listen(fd_.get(), 8), 0);
    ::getsockname(fd_.get(), any, &size);
    port_ = ntohs(address.sin_port);
  }
  int port() const { return port_; }
  FileDescriptor accept() const { return FileDescriptor(::accept(fd_.get(), nullptr, nullptr)); }

 private:
  FileDescriptor fd_;
  int port_ = 0;
};

// The command `runeflow view`, started in a folder. The destructor ends it; what a sanitizer found
// in it fails the test.
class Server {
 public:
  Server(const test::TemporaryFolder& folder, const std::string& arguments,
         const std::string& environment = "TZ=UTC0") {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    FileDescriptor writing(ends[1]);
    output_.reset(ends[0]);
    errors_ = folder.file("stderr.txt");
    // The server ends with the test, even if the test aborts.
    const auto line =
        fmt::format("cd '{}' && {} exec setpriv --pdeathsig TERM {} view --no-open {} 2>'{}'",
                    folder.file(""), environment, RUNEFLOW_COMMAND, arguments, errors_);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, writing.get(), STDOUT_FILENO);
    const char* command[] = {"sh", "-c", line.c_str(), nullptr};
    EXPECT_EQ(::posix_spawnp(&pid_, "sh", &actions, nullptr, const_cast<char**>(command), environ),
              0);
    ::posix_spawn_file_actions_destroy(&actions);
    writing.reset();
    char c = 0;
    while (::read(output_.get(), &c, 1) == 1 && c != '\n') address_ += c;
    if (address_.empty()) return;  // it has failed
    const auto colon = address_.rfind(':', address_.find('?'));
    port_ = std::atoi(address_.c_str() + colon + 1);
    const auto slash = address_.find('/', colon);
    root_ = address_.substr(slash, address_.find('?') - slash);
    token_ = address_.substr(address_.find('=') + 1);
  }
  ~Server() {
    if (pid_ <= 0) return;
    EXPECT_EQ(stop(), 0) << errors();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Returns the exit code.
  int stop(int signal = SIGTERM) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, signal);
    return wait();
  }
  int wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string errors() const {
    std::ifstream file(errors_);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  int port() const { return port_; }
  const std::string& root() const { return root_; }
  const std::string& token() const { return token_; }
  const std::string& address() const { return address_; }
  std::string cookie() const { return fmt::format("Cookie: runeflow_{}={}\r\n", port_, token_); }
  std::string host() const { return fmt::format("Host: 127.0.0.1:{}\r\n", port_); }

  // Sends the request with exactly these headers.
  Answer raw(const std::string& method, const std::string& target, const std::string& headers,
             const std::string& body = "") const {
    const Connection connection(port_);
    const auto length =
        body.empty() ? std::string() : fmt::format("Content-Length: {}\r\n", body.size());
    connection.send(fmt::format("{} {} HTTP/1.1\r\n{}{}Connection: close\r\n\r\n", method, target,
                                headers, length) +
                    body);
    return parsed(connection.read([](const auto&) { return false; }));
  }
  // As the page.
  Answer get(const std::string& call) const {
    return raw("GET", root_ + "api/v1/" + call, host() + cookie());
  }
  Answer post(const std::string& call, const Json& body) const {
    return raw("POST", root_ + "api/v1/" + call,
               host() + cookie() + "Content-Type: application/json\r\n", body.dump());
  }
  Connection events(const std::string& page) const {
    Connection connection(port_);
    connection.send(fmt::format("GET {}api/v1/events?page={} HTTP/1.1\r\n{}{}\r\n", root_, page,
                                host(), cookie()));
    return connection;
  }

 private:
  pid_t pid_ = 0;
  FileDescriptor output_;
  std::string errors_;
  std::string address_;
  int port_ = 0;
  std::string root_;
  std::string token_;
};

class View : public testing::Test {
 protected:
  EventStore filled(const std::string& name, std::span<const LogRow> rows) const {
    auto store = *EventStore::open(folder_.file(name), true, SourceDescriptor::logcat());
    store.insert(rows);
    return store;
  }
  void writeLog(const std::string& name) const {
    std::ofstream(folder_.file(name)) << "01-02 03:04:05.678  10  20 W Net: disk full\n"
                                         "01-02 03:04:06.678  10  20 I Net: again\n";
  }
  // Waits until the call's answer has the value at the JSON pointer.
  static void await(const Server& server, const std::string& call, const std::string& pointer,
                    const Json& value) {
    const auto until = Clock::now() + 5s;
    Json seen;
    do {
      seen = server.get(call).json().value(Json::json_pointer(pointer), Json());
      if (seen == value) return;
      std::this_thread::sleep_for(20ms);
    } while (Clock::now() < until);
    ADD_FAILURE() << call << pointer << " stayed " << seen << " instead of " << value;
  }

  test::TemporaryFolder folder_;
};

TEST_F(View, refusesWhoWasNotLetIn) {
  filled("a.db", test::rows("one", 3));
  const Server server(folder_, "a.db");
  const auto host = server.host();
  const auto cookie = server.cookie();
  const auto& root = server.root();
  const auto info = root + "api/v1/info";
  const auto open = root + "api/v1/open";
  const std::string json = "Content-Type: application/json\r\n";
  const struct {
    const char* name;
    std::string method, target, headers;
    int status;
  } table[] = {
      {"the page asks", "GET", info, host + cookie, 200},
      {"without a cookie", "GET", info, host, 403},
      {"another token", "GET", info,
       host + fmt::format("Cookie: runeflow_{}={}\r\n", server.port(), std::string(32, '0')), 403},
      {"part of the token", "GET", info,
       host + fmt::format("Cookie: runeflow_{}={}\r\n", server.port(), server.token().substr(1)),
       403},
      {"another cookie's name", "GET", info, host + "Cookie: runeflow=" + server.token() + "\r\n",
       403},
      {"beside other cookies", "GET", info,
       host + "Cookie: a=b; " + cookie.substr(8, cookie.size() - 10) + "; c=d\r\n", 200},
      {"the token for data", "GET", info + "?token=" + server.token(), host, 403},
      {"the token for the page", "GET", root + "?token=" + server.token(), host, 303},
      {"a wrong token for the page", "GET", root + "?token=1", host, 403},
      {"another prefix", "GET", "/" + std::string(32, 'a') + "/api/v1/info", host + cookie, 403},
      {"no prefix", "GET", "/", host + cookie, 403},
      {"through a tunnel", "GET", info, "Host: localhost:9\r\n" + cookie, 200},
      {"IPv6", "GET", info, "Host: [::1]:9\r\n" + cookie, 200},
      {"a foreign host", "GET", info, "Host: evil.example\r\n" + cookie, 403},
      {"a host that begins as ours", "GET", info, "Host: 127.0.0.1.evil.example\r\n" + cookie, 403},
      {"a host with credentials", "GET", info, "Host: localhost:1@evil.example\r\n" + cookie, 403},
      {"a foreign host with the token", "GET", root + "?token=" + server.token(),
       "Host: evil.example\r\n", 403},
      {"two hosts", "GET", info, host + "Host: evil.example\r\n" + cookie, 400},
      {"no host", "GET", info, cookie, 400},
      {"our origin", "GET", info,
       host + cookie + fmt::format("Origin: http://127.0.0.1:{}\r\n", server.port()), 200},
      {"another port's origin", "GET", info, host + cookie + "Origin: http://127.0.0.1:1\r\n", 403},
      {"no origin of a page", "GET", info, host + cookie + "Origin: null\r\n", 403},
      {"an encrypted origin", "GET", info,
       host + cookie + fmt::format("Origin: https://127.0.0.1:{}\r\n", server.port()), 403},
      {"a script of another port's page", "GET", root + "page/main.js",
       host + cookie + "Sec-Fetch-Site: same-site\r\nSec-Fetch-Mode: no-cors\r\n", 403},
      {"a frame of another port's page", "GET", root,
       host + cookie +
           "Sec-Fetch-Site: same-site\r\nSec-Fetch-Mode: navigate\r\nSec-Fetch-Dest: iframe\r\n",
       403},
      {"a link on another port's page", "GET", root,
       host + cookie +
           "Sec-Fetch-Site: same-site\r\nSec-Fetch-Mode: navigate\r\nSec-Fetch-Dest: document\r\n",
       200},
      {"our own script", "GET", root + "page/main.js",
       host + cookie + "Sec-Fetch-Site: same-origin\r\nSec-Fetch-Mode: no-cors\r\n", 200},
      {"a form", "POST", open, host + cookie + "Content-Type: text/plain\r\n", 415},
      {"a change without a type", "POST", open, host + cookie, 415},
      {"a change without a cookie", "POST", open, host + json, 403},
      {"another method", "PUT", open, host + cookie + json, 405},
      {"a change by reading", "GET", open, host + cookie, 404},
      {"a file outside", "GET", root + "page/../../a.db", host + cookie, 404},
      {"a file outside, encoded", "GET", root + "page/%2e%2e%2f%2e%2e%2fa.db", host + cookie, 404},
      {"a body that is too long", "POST", open, host + cookie + json + "Content-Length: 70000\r\n",
       413},
  };
  for (const auto& [name, method, target, headers, status] : table) {
    SCOPED_TRACE(name);
    const auto answer = server.raw(method, target, headers);
    // A request without exactly one Host may be refused as malformed or as foreign.
    EXPECT_THAT(answer.status, AnyOf(status, status == 400 ? 403 : status)) << answer.head;
    if (answer.status == 400) continue;  // of the library, before any of ours
    for (const auto* header :
         {"Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; ",
          "frame-ancestors 'none'", "X-Content-Type-Options: nosniff", "Cache-Control: no-store",
          "Referrer-Policy: no-referrer", "Cross-Origin-Resource-Policy: same-origin"}) {
      EXPECT_THAT(answer.head, HasSubstr(header));
    }
    if (answer.status == 403) {
      EXPECT_THAT(answer.body, HasSubstr("Open the address that"));
    }
  }
  EXPECT_THAT(server.raw("GET", root + "?token=" + server.token(), host).head,
              AllOf(HasSubstr(fmt::format("Set-Cookie: runeflow_{}={}; Path={}; HttpOnly; "
                                          "SameSite=Strict",
                                          server.port(), server.token(), root)),
                    HasSubstr("Location: " + root + "\r\n")));
  EXPECT_GE(server.token().size() * 4, 128U);
  EXPECT_GE((root.size() - 2) * 4, 128U);  // between two slashes
}

TEST_F(View, refusesWhatIsTooMuchInSentences) {
  filled("a.db", test::rows("one", 3));
  const Server server(folder_, "a.db");
  std::string nested;
  for (int i = 0; i < 60; ++i) nested += "NOT%20";
  const struct {
    const char* name;
    std::string call;
    int status;
    const char* sentence;
  } table[] = {
      {"no number", "records?first=x&last=2", 400, "the parameter first must be a whole number"},
      {"a number with more", "records?first=1&last=2x", 400, "the parameter last must be"},
      {"beyond 64 bits", "records?before=9999999999999999999", 400, "the parameter before must"},
      {"too long a range", "records?first=1&last=501", 400, "at most 500 records at once"},
      {"a range that overflows", "records?first=0&last=9223372036854775807", 400, "at most 500"},
      {"too many records", "records?limit=501", 400, "from 1 to 500"},
      {"broken seqs", "records?seqs=1,,2", 400, "separated by commas"},
      {"a long query", "records?q=" + std::string(8'193, 'a'), 400, "longer than 8192 bytes"},
      {"a query that SQLite refuses", "records?q=" + nested + "a", 400, "shorten it"},
      {"too many bars", "timeline?bars=1001", 400, "from 2 to 1000"},
      {"an empty span", "timeline?from=5&until=5", 400, "must end after it begins"},
      {"too many blocks", "blocks?first=1&last=99999999&size=1", 400, "choose a larger size"},
      {"no such field", "complete?field=planet", 400, "there is no such field"},
      {"no such record", "record/77", 404, "there is no record 77"},
      {"a record beyond 64 bits", "record/99999999999999999999", 404, "there is no record"},
      {"no such call", "planets", 404, "there is no such call"},
      {"an old generation", "records?limit=1&g=77", 409, "the database was cleared or another"},
  };
  for (const auto& [name, call, status, sentence] : table) {
    SCOPED_TRACE(name);
    const auto answer = server.get(call);
    EXPECT_EQ(answer.status, status);
    EXPECT_THAT(answer.json().value("error", ""), HasSubstr(sentence));
  }
  std::string many = "1";
  for (int i = 2; i <= 501; ++i) many += fmt::format(",{}", i);
  EXPECT_EQ(server.get("records?seqs=" + many).status, 400);
  EXPECT_EQ(server.get(std::string(100'000, 'a')).status, 414);
  EXPECT_EQ(
      server.raw("GET", server.root(), server.host() + "A: " + std::string(100'000, 'a')).status,
      431);
  EXPECT_EQ(server.get("query?q=" + nested + "a").json()["error"],
            "the query has more conditions or deeper groups than SQLite takes; shorten it");
}

TEST_F(View, answersWithSafeTextsAndMarksInUtf16Units) {
  const LogRow rows[] = {
      test::row("\U0001F600 caf\u00e9 Wakelock\x1b[31m\u202e<b>\nwakelocks end", "T\u202eg\x07"),
      test::row(std::string(1'500, 'x') + " wakelock"),
      test::row("plain", "Net", RuneflowLogLevel::Error, LogRow::Context{{"k\x1b", "v\u2066"}})};
  filled("a.db", rows);
  const Server server(folder_, "a.db");
  const auto list = server.get("records?first=1&last=9&q=wakelock").json();
  EXPECT_EQ(list["generation"], 1);
  const auto& first = list["records"][0];
  EXPECT_EQ(first["text"], "\U0001F600 caf\u00e9 Wakelock\\x1b[31m\\u202e<b>\\nwakelocks end");
  EXPECT_EQ(first["marks"], Json::parse("[[8,16],[35,44]]"));  // the emoji takes two units
  EXPECT_EQ(first["fields"][0], "T\\u202eg\\x07");
  EXPECT_EQ(first["level"], 2);
  EXPECT_EQ(first["time"], 1'700'000'000'000'000);
  EXPECT_EQ(list["records"][1]["text"], std::string(1'000, 'x'));
  EXPECT_EQ(list["records"][1]["length"], 1'509);
  EXPECT_EQ(list["records"][2]["marks"], Json::array());

  const auto detail = server.get("record/1?q=wakelock").json();
  EXPECT_EQ(detail["text"], "\U0001F600 caf\u00e9 Wakelock\\x1b[31m\\u202e<b>\nwakelocks end");
  EXPECT_EQ(detail["marks"], Json::parse("[[8,16],[34,43]]"));
  EXPECT_EQ(detail["utc"], "2023-11-14T22:13:20.000000Z");
  EXPECT_EQ(detail["local"], "2023-11-14 22:13:20.000000");
  EXPECT_THAT(detail["line"].get<std::string>(), HasSubstr("\tInfo\tT\\u202eg\\x07\t"));
  EXPECT_EQ(server.get("record/3").json()["context"], Json({{"k\\x1b", "v\\u2066"}}));
  EXPECT_EQ(server.get("record/2/text?from=1498&characters=4").json()["text"], "xx w");
  EXPECT_EQ(server.get("lines?seqs=3").json()["text"],
            "3\t2023-11-14T22:13:20.000000Z\tError\tNet\t\t\tplain\n");

  const auto info = server.get("info").json();
  EXPECT_EQ(info["database"], "a.db");
  EXPECT_EQ(info["zone"], "UTC");
  EXPECT_EQ(info["count"], 3);
  EXPECT_EQ(info["columns"][0]["name"], "tag");
  EXPECT_EQ(info["levels"][5], "Fatal");
}

TEST_F(View, countsAsTheLibraryDoes) {
  std::vector<LogRow> rows;
  for (int i = 0; i < 300; ++i) {
    const auto level = i % 3 == 0 ? RuneflowLogLevel::Error : RuneflowLogLevel::Info;
    rows.emplace_back(test::at(1'000 + i), level, i % 2 == 0 ? "even" : "odd", std::nullopt,
                      i % 5 == 0 ? "Five" : "Other", std::nullopt, std::nullopt, std::nullopt,
                      std::nullopt, std::nullopt, std::nullopt, std::nullopt);
  }
  filled("a.db", rows);
  const Server server(folder_, "a.db");
  await(server, "info", "/span/until", 1'299'000'001);
  const auto blocks = server.get("blocks?q=even+level:error&size=100").json();
  EXPECT_EQ(blocks["total"], 50);
  EXPECT_EQ(blocks["blocks"], Json::parse("[[1,17],[101,17],[201,16]]"));
  const auto timeline =
      server.get("timeline?bars=2&q=even&from=1000000000&until=1300000000").json();
  EXPECT_EQ(timeline["total"], 300);
  EXPECT_EQ(timeline["matched"], 150);
  EXPECT_EQ(timeline["bars"], Json::parse("[[0,0,100,0,50,0],[0,0,100,0,50,0]]"));
  EXPECT_EQ(timeline["matches"], Json::parse("[[0,0,50,0,25,0],[0,0,50,0,25,0]]"));
  EXPECT_EQ(server.get("timeline?bars=2").json()["matches"], nullptr);
  const auto facets = server.get("facets?q=level:error&limit=1").json();
  EXPECT_EQ(facets["levels"], Json::parse("[0,0,0,0,100,0]"));
  EXPECT_EQ(facets["fields"][0]["values"][0]["value"], "Other");
  EXPECT_EQ(facets["fields"][0]["values"][0]["count"], 80);
  EXPECT_EQ(server.get("complete?field=tag&prefix=fi").json()["values"][0]["count"], 60);
  EXPECT_EQ(server.get("position?time=1200000000").json()["seq"], 201);
  const auto seqs = [&](const std::string& call) {
    std::vector<int> numbers;
    const auto list = server.get(call).json();
    for (const auto& record : list["records"]) numbers.push_back(record["seq"]);
    return numbers;
  };
  EXPECT_THAT(seqs("records?q=odd&before=7&limit=2"), ElementsAre(4, 6));
  EXPECT_THAT(seqs("records?q=odd&after=7&limit=2"), ElementsAre(8, 10));
  EXPECT_THAT(seqs("records?q=odd&limit=2&until=1004000000"), ElementsAre(2, 4));
  EXPECT_THAT(seqs("records?limit=9&from=1298000000&until=1300000000"), ElementsAre(299, 300));
  const auto reading = server.get("query?q=level:info+even+NOT+tag:Five&plan=1").json();
  EXPECT_EQ(reading["reading"], "level ≥ Info and text “even” and not tag = “Five”");
  EXPECT_THAT(reading["plan"].dump(), HasSubstr("events_fts"));
}

TEST_F(View, saysWhenTheDatabaseGrowsIsClearedOrIsGone) {
  auto store = filled("a.db", test::rows("one", 3));
  const Server server(folder_, "a.db");
  const auto events = server.events("p");
  const auto says = [&](const std::string& text) {
    const auto begin = Clock::now();
    EXPECT_THAT(events.read([&](const auto& got) { return got.contains(text); }, 5s),
                HasSubstr(text));
    EXPECT_LT(Clock::now() - begin, 2s);
  };
  store.insert(test::rows("two", 2));
  says("\"lastSeq\":5,\"count\":5");
  EXPECT_EQ(server.get("records?limit=1&g=1").status, 200);
  store.clear();
  says("\"generation\":2");
  const auto stale = server.get("records?limit=1&g=1");
  EXPECT_EQ(stale.status, 409);
  EXPECT_EQ(stale.json()["generation"], 2);
  std::filesystem::rename(folder_.file("a.db"), folder_.file("moved"));
  says("event: gone\ndata: {\"error\":\"a.db was deleted or replaced");
  EXPECT_THAT(server.get("info").json()["error"].get<std::string>(),
              StartsWith("a.db was deleted"));
  // Another database can be opened; questions about the old one are refused.
  filled("b.db", test::rows("three", 7));
  EXPECT_EQ(server.post("open", {{"database", "b.db"}}).json()["generation"], 3);
  says("\"database\":\"b.db\"");
  EXPECT_EQ(server.get("records?limit=9&g=3").json()["records"].size(), 7U);
}

TEST_F(View, opensAndMakesDatabasesInItsFolderOnly) {
  filled("a.db", test::rows("one", 3));
  filled("other.db", test::rows("one", 1));
  const test::TemporaryFolder elsewhere;
  std::filesystem::create_symlink(elsewhere.file("x.db"), folder_.file("link.db"));
  std::filesystem::create_directory(folder_.file("folder.db"));
  const Server server(folder_, "a.db");
  const Peer daemon;
  const struct {
    const char* database;
    const char* sentence;
  } table[] = {
      {"../x.db", "cannot be the name of a database"},
      {"/tmp/x.db", "cannot be the name"},
      {"sub/x.db", "cannot be the name"},
      {".hidden.db", "cannot be the name"},
      {"x.txt", "cannot be the name"},
      {".db", "cannot be the name"},
      {"", "cannot be the name"},
      {"a\nb.db", "cannot be the name"},
      {"link.db", "link.db exists already"},
      {"folder.db", "folder.db exists already"},
      {"other.db", "other.db exists already; open it to capture into it"},
      {"a.db", "a.db already holds logcat records"},
  };
  for (const auto& [database, sentence] : table) {
    SCOPED_TRACE(database);
    const auto answer =
        server.post("captures", {{"source", "dlt"},
                                 {"host", fmt::format("127.0.0.1:{}", daemon.port())},
                                 {"database", database}});
    EXPECT_EQ(answer.status, 400);
    EXPECT_THAT(answer.json().value("error", ""), HasSubstr(sentence));
    if (std::string_view(database) == "other.db" || std::string_view(database) == "a.db") continue;
    EXPECT_EQ(server.post("open", {{"database", database}}).status, 400);
  }
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere.file("")));
  EXPECT_EQ(server.post("clear", {{"database", "other.db"}, {"sure", true}}).status, 400);
  EXPECT_EQ(server.post("clear", {{"database", "a.db"}}).status, 400);
  EXPECT_EQ(server.post("clear", {{"database", "a.db"}, {"sure", true}}).json()["deleted"], 3);
  EXPECT_EQ(server.get("databases").json()["databases"].size(), 2U);
  EXPECT_THAT(
      server.post("captures", {{"source", "dlt"}, {"host", "127.0.0.1:1"}, {"database", "n.db"}})
          .json()
          .value("error", ""),
      HasSubstr("Connection refused"));
  EXPECT_FALSE(std::filesystem::exists(folder_.file("n.db")));
}

TEST_F(View, capturesWatchesAndEnds) {
  const Server server(folder_, "");
  EXPECT_EQ(server.get("info").json()["database"], nullptr);
  EXPECT_EQ(server.get("records?limit=1").status, 409);
  const Peer daemon;
  const auto started =
      server.post("captures", {{"source", "dlt"},
                               {"host", fmt::format("127.0.0.1:{}", daemon.port())},
                               {"database", "car.db"}});
  EXPECT_EQ(started.json()["id"], 1) << started.body;
  const auto device = daemon.accept();
  std::string message(
      "\x21\x00\x00\x1c"  // extended header, big endian, 28 bytes
      "\x41\x01"
      "APP\0CTX\0"  // log, info, one argument
      "\x00\x02\x00\x00"
      "\0\x06"
      "hello\0",
      26);
  message[3] = static_cast<char>(message.size());
  const auto send = [&] {
    EXPECT_EQ(::write(device.get(), message.data(), message.size()),
              static_cast<ssize_t>(message.size()));
  };
  send();
  await(server, "captures", "/captures/0/records", 1);
  await(server, "info", "/lastSeq", 1);
  EXPECT_EQ(server.get("info").json()["source"]["id"], "dlt");
  // Another process that leaves the database does not take the capture's log with it.
  const auto stored = [&] {
    return EventStore::open(folder_.file("car.db"), false, SourceDescriptor::dlt())->count();
  };
  EXPECT_EQ(stored(), 1);
  send();
  await(server, "info", "/lastSeq", 2);
  EXPECT_EQ(stored(), 2);
  EXPECT_EQ(server.post("captures/1/cap", {{"maxBytes", 5}}).status, 400);
  EXPECT_EQ(server.post("captures/1/cap", {{"maxBytes", 5'000'000}}).status, 200);
  EXPECT_EQ(server.get("captures").json()["captures"][0]["maxBytes"], 5'000'000);
  EXPECT_EQ(server.post("captures/1/end", Json::object()).status, 200);
  EXPECT_EQ(server.post("captures/9/end", Json::object()).status, 404);
  await(server, "captures", "/captures/0/running", false);
  EXPECT_EQ(server.get("captures").json()["captures"][0]["error"], nullptr);
}

TEST_F(View, aNewerQuestionCancelsTheOlder) {
  const Server server(folder_, "");
  const Peer silent;  // accepts, as an adb server would, and says nothing
  const auto ask = [&](int port) {
    return server.post(
        "captures?page=p&ask=start",
        {{"source", "adb"}, {"host", fmt::format("127.0.0.1:{}", port)}, {"database", "x.db"}});
  };
  Answer older;
  std::thread first([&] { older = ask(silent.port()); });
  const auto waiting = silent.accept();
  std::thread second([&] { ask(silent.port()); });
  first.join();
  EXPECT_EQ(older.status, 409);
  EXPECT_EQ(older.json()["cancelled"], true);
  const auto newer = silent.accept();
  EXPECT_EQ(ask(1).status, 400);  // nobody listens; lets the second one go
  second.join();
}

TEST_F(View, servesBesideIdleConnectionsAndEndsWithThem) {
  filled("a.db", test::rows("one", 1'000));
  Server server(folder_, "a.db");
  std::vector<Connection> idle;
  for (int i = 0; i < 50; ++i) {
    idle.emplace_back(server.port());
    if (i % 2 == 0) idle.back().send("GET / HTTP/1.1\r\nHost: 127.");  // and no more of it
  }
  for (int i = 0; i < 8; ++i) idle.push_back(server.events(fmt::format("page{}", i)));
  const Peer silent;
  std::thread asking([&] {
    server.post("captures", {{"source", "adb"},
                             {"host", fmt::format("127.0.0.1:{}", silent.port())},
                             {"database", "x.db"}});
  });
  const auto connected = silent.accept();
  const auto begin = Clock::now();
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(server.get("records?first=1&last=200").json()["records"].size(), 200U);
  }
  EXPECT_LT(Clock::now() - begin, 15s);  // idle connections are closed after 20 s
  const auto ending = Clock::now();
  EXPECT_EQ(server.stop(SIGINT), 0);
#ifdef __SANITIZE_THREAD__
  EXPECT_LT(Clock::now() - ending, 5s);  // everything takes longer
#else
  EXPECT_LT(Clock::now() - ending, kEndsWithin);
#endif
  asking.join();
}

TEST_F(View, boundsItsConnectionsAndStreams) {
  filled("a.db", test::rows("one", 3));
  const Server server(folder_, "a.db");
  const auto isHead = [](const auto& got) { return got.contains("\r\n\r\n"); };
  std::vector<Connection> streams;
  for (int i = 0; i < 33; ++i) {
    streams.push_back(server.events(fmt::format("page{}", i)));
    EXPECT_THAT(streams.back().read(isHead), HasSubstr(i < 32 ? "HTTP/1.1 200" : "HTTP/1.1 503"));
  }
  {
    std::vector<Connection> idle;
    for (int i = 0; i < 200; ++i) idle.emplace_back(server.port());
    const auto answer = server.get("info");
    EXPECT_EQ(answer.status, 503);
    EXPECT_THAT(answer.body, HasSubstr("too many connections"));
  }
  await(server, "info", "/count", 3);
}

TEST_F(View, listensOnOneAddressOfThisMachineOnly) {
  const Server server(folder_, "");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(server.port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
  const FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(View, showsStandardInputAndLeavesNothingBehind) {
  writeLog("phone.log");
  {
    std::filesystem::create_directory(folder_.file("tmp"));
    Server server(folder_, fmt::format("- <'{}'", folder_.file("phone.log")),
                  fmt::format("TMPDIR='{}'", folder_.file("tmp")));
    await(server, "info", "/count", 2);
    EXPECT_THAT(server.errors(), HasSubstr("kept in a temporary database"));
    EXPECT_FALSE(std::filesystem::is_empty(folder_.file("tmp")));
    EXPECT_EQ(server.stop(SIGINT), 0);
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder_.file("tmp")));
}

TEST_F(View, twoServersKnowNothingOfEachOther) {
  filled("a.db", test::rows("one", 3));
  const Server one(folder_, "a.db");
  const Server two(folder_, "a.db");
  EXPECT_NE(one.port(), two.port());
  EXPECT_NE(one.root(), two.root());
  const auto crossed = two.raw("GET", two.root() + "api/v1/info", two.host() + one.cookie());
  EXPECT_EQ(crossed.status, 403);
  Server taken(folder_, fmt::format("a.db --port {}", one.port()));
  EXPECT_EQ(taken.address(), "");
  EXPECT_EQ(taken.wait(), 2);
  EXPECT_THAT(taken.errors(), HasSubstr(fmt::format("cannot serve on port {}", one.port())));
}

TEST_F(View, capturesALogBesideItOnce) {
  writeLog("phone.log");
  {
    const Server server(folder_, "phone.log");
    await(server, "info", "/count", 2);
    EXPECT_EQ(server.errors(), "runeflow: capturing phone.log into phone.log.db\n");
    await(server, "captures", "/captures/0/running", false);
  }
  {
    const Server server(folder_, "phone.log");
    EXPECT_THAT(server.errors(), HasSubstr("phone.log was captured before; showing phone.log.db"));
    EXPECT_EQ(server.get("info").json()["count"], 2);
    EXPECT_THAT(server.get("captures").json()["captures"], IsEmpty());
  }
  std::filesystem::last_write_time(folder_.file("phone.log"),
                                   std::filesystem::file_time_type::clock::now() + 1min);
  {
    const Server server(folder_, "phone.log");
    EXPECT_THAT(server.errors(), HasSubstr("into phone.log.2.db"));
  }
  Server missing(folder_, "missing.log");
  EXPECT_EQ(missing.wait(), 2);
  EXPECT_THAT(missing.errors(), HasSubstr("cannot open missing.log"));
}

// The axis grows with the records, in steps, and what was counted moves with it.
TEST_F(View, aGrowingTimelineCountsEveryRecordOnce) {
  const auto rowAt = [](double seconds) {
    return LogRow(test::at(seconds), RuneflowLogLevel::Info, seconds < 90 ? "odd one" : "one",
                  std::nullopt, LogRow::Slots{});
  };
  auto store = filled("a.db", std::vector<LogRow>(50, rowAt(100)));
  const Server server(folder_, "a.db");
  std::int64_t total = 50;
  for (const double seconds : {101.0, 100.0, 160.0, 40.0, 4'000.0, 90.0, -3.0, 1e6}) {
    SCOPED_TRACE(seconds);
    store.insert(std::vector<LogRow>(10, rowAt(seconds)));
    total += 10;
    await(server, "info", "/count", total);
    const auto answer = server.get("timeline?bars=50&q=odd");
    const auto growing = answer.json();
    ASSERT_TRUE(growing.contains("total")) << answer.body;
    EXPECT_EQ(growing["total"], total);
    EXPECT_EQ(growing["matched"], server.get("blocks?q=odd").json()["total"]);
    // The same axis, counted anew.
    const auto again =
        server.get(fmt::format("timeline?bars={}&q=odd&from={}&until={}", growing["bars"].size(),
                               growing["from"].dump(), growing["until"].dump()));
    const auto anew = again.json();
    ASSERT_TRUE(anew.contains("bars")) << again.body;
    EXPECT_EQ(growing["bars"], anew["bars"]);
    EXPECT_EQ(growing["matches"], anew["matches"]);
  }
}

TEST(QueryWords, tellEveryNodeExactly) {
  using Q = QueryNode;
  const auto& logcat = SourceDescriptor::logcat();
  const auto tag = [](FieldOp op) { return Q::field({StoreColumn::slot(0), op, Bind::text("a")}); };
  const struct {
    QueryNode node;
    const char* words;
  } table[] = {
      {Q::all(), "everything"},
      {Q::and_({}), "everything"},
      {tag(FieldOp::equals), "tag = “a”"},
      {tag(FieldOp::notEquals), "tag ≠ “a”"},
      {tag(FieldOp::contains), "tag contains “a”"},
      {tag(FieldOp::prefix), "tag begins with “a”"},
      {tag(FieldOp::notPrefix), "tag does not begin with “a”"},
      {tag(FieldOp::isNullOrEmpty), "tag is empty"},
      {Q::field({StoreColumn::slot(7), FieldOp::equals, std::nullopt}), "slot 7 = “”"},
      {Q::field({StoreColumn::level(), FieldOp::lessOrEqual, Bind::int_(3)}), "level ≤ Warning"},
      {Q::field({StoreColumn::level(), FieldOp::greaterOrEqual, Bind::int_(9)}), "level ≥ 9"},
      {Q::context({"k", "v"}), "ctx “k” = “v”"},
      {Q::context({"k", "v", ContextMatch::substringScan}), "ctx “k” contains “v”"},
      {Q::fullText({"a b"}), "text “a b”"},
      {Q::fullText({"a\x1b", FullTextMode::substringScan()}), "text containing “a\\x1b”"},
      {Q::fullText({"", FullTextMode::regex("a.b")}), "text matching “a.b”"},
      {Q::fullText({"A", FullTextMode::fts(), true}), "text “A” in this case"},
      {Q::or_({tag(FieldOp::equals), Q::and_({tag(FieldOp::equals), Q::fullText({"x"})})}),
       "tag = “a” or (tag = “a” and text “x”)"},
      {Q::not_(Q::or_({tag(FieldOp::equals), Q::fullText({"x"})})), "not (tag = “a” or text “x”)"},
      {Q::and_({Q::or_({tag(FieldOp::equals)}), Q::not_(Q::all())}),
       "tag = “a” and not everything"},
  };
  for (const auto& [node, words] : table) EXPECT_EQ(host::inWords({node}, logcat), words);
  std::string deep;
  for (int i = 0; i < 1'900; ++i) deep += "NOT ";
  EXPECT_THAT(host::inWords(QueryParser::parse(deep + "a", logcat, false), logcat), HasSubstr("…"));
}

}  // namespace
}  // namespace runeflow
