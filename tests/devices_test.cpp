#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <latch>
#include <memory>
#include <set>
#include <thread>
#include <unordered_set>

#include "runeflow/devices/device_catalog.h"
#include "runeflow/platform/host.h"
#include "runeflow/platform/process.h"

namespace runeflow {
namespace {

using DeviceCatalog::parseDevices;
using DeviceCatalog::parseSimulators;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

using Sources = std::vector<SourceRef>;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

Sources simulators(std::string_view document) {
  return parseSimulators(bytesOf(document));
}

Sources devices(std::string_view entries) {
  return parseDevices(bytesOf(R"({"result":{"devices":[)" + std::string(entries) + "]}}"));
}

std::vector<std::string> idsOf(const Sources& sources) {
  std::vector<std::string> ids;
  for (const auto& source : sources) ids.push_back(source.id);
  return ids;
}

// A booted simulator of an iOS runtime, with `more` members.
std::string booted(const std::string& more) {
  return R"({"devices":{"x.SimRuntime.iOS-17-2":[{"udid":"U","name":"N","state":"Booted")" + more +
         "}]}}";
}

TEST(SourceRef, typesMapToTheirIcons) {
  const struct {
    const char* type;
    const char* symbol;
  } rows[] = {
      {"", "iphone"},
      {"Mac TV iPad", "ipad"},
      {"Apple Watch Series 9", "applewatch"},
      {"Television", "visionpro"},  // the earlier key decides
      {"fitvest", "appletv"},
      {"Apple TV 4K", "appletv"},
      {"Mac Studio", "laptopcomputer"},
      {"\uFF29PAD", "iphone"},  // not the ASCII letters
  };
  for (const auto& row : rows) {
    EXPECT_EQ(SourceRef::symbolForDeviceType(row.type), row.symbol) << row.type;
  }
}

TEST(SourceRef, thisMachineIsLabelledByTheVersionRule) {
  const struct {
    const char* release;
    OsVersion version;
    const char* text;
  } rows[] = {
      {"6.1.0-13-amd64", {6, 1, 0}, "6.1"},
      {"14.6.1", {14, 6, 1}, "14.6.1"},
      {"15", {15, 0, 0}, "15.0"},
      {"5.10-rc1", {5, 10, 0}, "5.10"},
      {"", {0, 0, 0}, "0.0"},
      {"6.99999999999.3", {6, 0, 0}, "6.0"},
      {"6.-1.2", {6, 0, 0}, "6.0"},
      {"6.1.-3", {6, 1, 0}, "6.1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.release);
    EXPECT_EQ(parseOsVersion(row.release), row.version);
    EXPECT_EQ(versionText(row.version), row.text);
  }
  const auto mac = SourceRef::thisMac();
  EXPECT_EQ(mac, (SourceRef{SourceRef::Kind::mac,
                            "mac",
                            hostName().value_or("This Mac"),
                            "macOS " + versionText(osVersion()),
                            {},
                            {},
                            true,
                            "laptopcomputer"}));
  EXPECT_GT(osVersion().majorVersion, 0);

  auto other = mac;
  other.model = "";  // present and empty is not absent
  EXPECT_THAT((std::unordered_set<SourceRef>{mac, other, SourceRef::thisMac()}), SizeIs(2));
}

TEST(DeviceCatalog, runtimeKeysBecomeLabels) {
  const struct {
    const char* key;
    const char* label;
  } rows[] = {
      {"com.apple.CoreSimulator.SimRuntime.iOS-17-2", "iOS 17.2"},
      {"com.apple.CoreSimulator.SimRuntime.xrOS-1-0", "visionOS 1.0"},
      {"x.SimRuntime.", "iOS"},
      {"", "iOS"},
      {"x.SimRuntime.--", "--"},
      {"x.SimRuntime.-tvOS--17-", "tvOS 17"},
      {"a.SimRuntime.iOS-1.SimRuntime.xrOS-2", "visionOS 2"},
      {"a.SimRuntime.SimRuntime.iOS-17", "SimRuntime.iOS 17"},  // the markers share a full stop
  };
  for (const auto& row : rows) {
    EXPECT_EQ(DeviceCatalog::osLabel(row.key), row.label) << row.key;
  }
}

TEST(DeviceCatalog, bootedSimulatorsAreListedByName) {
  const auto list = simulators(R"({"generation": [1, null], "devices": {
    "com.apple.CoreSimulator.SimRuntime.xrOS-1-0": [
      {"udid": "1", "name": "b", "state": "Booted", "isAvailable": true, "lastBootedAt": "now"},
      {"udid": "2", "name": "É", "state": "Booted", "deviceTypeIdentifier": "x.Apple-TV"},
      {"udid": "3", "name": "a", "state": "Shutdown"},
      {"udid": "4", "name": "a", "state": "booted"},
      {"udid": "5", "name": "a", "state": "Booted", "isAvailable": false}],
    "com.apple.CoreSimulator.SimRuntime.iOS-17-2": [
      {"udid": "6", "name": "iPad Air", "state": "Booted", "isAvailable": null,
       "deviceTypeIdentifier": null},
      {"udid": "7", "name": "Z", "state": "Booted"},
      {"udid": "9", "name": "\ud83d\ude00", "state": "Booted"},
      {"udid": "10", "name": "\uff01", "state": "Booted"},
      {"udid": "8", "name": "b", "state": "Booted"}],
    "com.apple.CoreSimulator.iOS-17-2": [{"udid": "0", "name": "A", "state": "Booted"}]}})");
  // By code point, not by UTF-16 unit; equal names in the order of their runtimes.
  EXPECT_THAT(idsOf(list),
              ElementsAre("sim:7", "sim:8", "sim:1", "sim:6", "sim:2", "sim:10", "sim:9"));
  EXPECT_EQ(
      list[3],
      (SourceRef{
          SourceRef::Kind::simulator, "sim:6", "iPad Air", "iOS 17.2", "6", {}, true, "ipad"}));
  EXPECT_EQ(list[4].symbol, "appletv");
  EXPECT_EQ(list[4].osVersion, "visionOS 1.0");
}

TEST(DeviceCatalog, physicalDevicesAreListedWithWhatIsKnown) {
  const auto list = devices(R"(
    {"identifier": "I1", "deviceProperties": {"name": "Phone", "osVersionNumber": "17.4"},
     "hardwareProperties": {"marketingName": "iPhone 15 Pro", "deviceType": "iPhone", "udid": "U1",
                            "platform": "iOS", "reality": "physical", "cpuType": {"name": "arm"}},
     "connectionProperties": {"transportType": "wired", "tunnelState": "connected",
                              "pairingState": "paired"}},
    {"deviceProperties": {"osVersionNumber": "1.1"}, "connectionProperties": null,
     "hardwareProperties": {"marketingName": "Apple Vision Pro", "udid": "U2", "platform": "xrOS",
                            "reality": "physical"}},
    {"identifier": null, "hardwareProperties": {"reality": "physical"}},
    {"identifier": "I3", "hardwareProperties": {"reality": "simulated"}},
    {"identifier": "I4", "hardwareProperties": {"reality": "physical", "platform": "macOS"}},
    {"identifier": "I5", "hardwareProperties": {"reality": "physical", "deviceType": "Mac"}},
    {"identifier": "I6", "hardwareProperties": {"platform": "iOS"}},
    {"identifier": "I7"})");
  ASSERT_THAT(list, SizeIs(3));
  constexpr auto kDevice = SourceRef::Kind::device;
  EXPECT_EQ(list[0], (SourceRef{kDevice, "device:U2", "Apple Vision Pro", "visionOS 1.1", "U2",
                                "Apple Vision Pro", false, "visionpro"}));
  EXPECT_EQ(list[1], (SourceRef{kDevice, list[1].id, "Device", "", {}, {}, false, "iphone"}));
  EXPECT_EQ(list[2], (SourceRef{kDevice, "device:I1", "Phone", "iOS 17.4", "U1", "iPhone 15 Pro",
                                true, "iphone"}));

  constexpr auto* kUuid =
      "device:[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}";
  const auto again = devices(R"({"hardwareProperties": {"reality": "physical"}})");
  ASSERT_THAT(again, ElementsAre(Field(&SourceRef::id, MatchesRegex(kUuid))));
  EXPECT_NE(again[0].id, list[1].id);
}

TEST(DeviceCatalog, onlyWiredPairedConnectedPhonesAndTabletsStream) {
  using Texts = std::array<std::optional<std::string>, 4>;
  const auto streams = [](const Texts& texts) {
    return DeviceCatalog::isStreamableDeviceState(texts[0], texts[1], texts[2], texts[3]);
  };
  const Texts phone{"iOS", "wired", "connected", "paired"};
  EXPECT_TRUE(streams(phone));
  EXPECT_TRUE(streams({"iPadOS", "wired", "connected", "paired"}));
  for (std::size_t i = 0; i < phone.size(); ++i) {
    for (const std::optional<std::string>& wrong :
         {std::optional<std::string>(), {""}, {"Wired"}, {"xrOS"}, {"localNetwork"}}) {
      auto texts = phone;
      texts[i] = wrong;
      EXPECT_FALSE(streams(texts)) << i << testing::PrintToString(wrong);
    }
  }
}

TEST(DeviceCatalog, oneFaultAnywhereEmptiesTheResult) {
  ASSERT_THAT(simulators(booted("")), SizeIs(1));
  const std::string good = R"({"udid":"U","name":"N","state":"Booted"})";
  const auto groups = [&](const std::string& second) {
    return R"({"devices":{"x.SimRuntime.iOS-1":[)" + good + "]," + second + "}}";
  };
  ASSERT_THAT(simulators(groups(R"("other":[])")), SizeIs(1));
  const std::string bad[] = {
      "",
      "not json",
      "null",
      "{}",
      R"({"Devices":{}})",
      R"({"devices":null})",
      booted("") + "x",
      booted("") + std::string("\0x", 2),
      booted(R"(,"isAvailable":1)"),
      booted(R"(,"deviceTypeIdentifier":7)"),
      booted(R"(,"name":null)"),
      booted(",\"unknown\":\"\xE9\""),   // Latin-1
      booted(R"(,"unknown":"\ud800")"),  // half a surrogate pair
      groups(R"("x.SimRuntime.iOS-2":null)"),
      groups(R"("other":{})"),
      groups(R"("other":[{"udid":"U","name":"N"}])"),
      groups(R"("x.SimRuntime.iOS-2":[{"name":"N","state":"Shutdown"}])"),
  };
  for (const auto& document : bad) EXPECT_THAT(simulators(document), IsEmpty()) << document;

  const std::string phone = R"({"hardwareProperties":{"reality":"physical"}})";
  ASSERT_THAT(devices(phone + "," + R"({"unknown":[1.5e3]},{})"), SizeIs(1));
  for (const auto* entry : {"1", "null", "[]", R"({"identifier":1})", R"({"deviceProperties":""})",
                            R"({"hardwareProperties":{"reality":"simulated","udid":false}})",
                            R"({"connectionProperties":{"tunnelState":{}}})"}) {
    EXPECT_THAT(devices(phone + "," + entry), IsEmpty()) << entry;
  }
  for (const auto* document : {"", "{}", R"({"result":null})", R"({"result":{"devices":{}}})",
                               R"({"result":[]})", R"({"devices":[]})"}) {
    EXPECT_THAT(parseDevices(bytesOf(document)), IsEmpty()) << document;
  }
}

TEST(DeviceCatalog, nestingIsBoundedAndTheLastOfEqualKeysCounts) {
  const auto nested = [](std::size_t levels) {
    return booted(R"(,"unknown":"[\"[","deep":)" + std::string(levels, '[') +
                  std::string(levels, ']'));
  };
  constexpr std::size_t kAround = 4;  // the levels that `booted` nests by itself
  EXPECT_THAT(simulators(nested(512 - kAround)), SizeIs(1));
  EXPECT_THAT(simulators(nested(513 - kAround)), IsEmpty());
  std::string endless;
  endless.resize(100'000'000, '[');
  EXPECT_THAT(simulators(endless), IsEmpty());
  EXPECT_THAT(parseDevices(bytesOf(endless)), IsEmpty());
  EXPECT_THAT(simulators(booted(R"(,"name":1,"name":"last")")),
              ElementsAre(Field(&SourceRef::name, "last")));
}

struct Holdings {
  std::ptrdiff_t descriptors;
  std::ptrdiff_t threads;
};

Holdings holdings() {
  const auto entries = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  };
  return {entries("/proc/self/fd"), entries("/proc/self/task")};
}

// Taken with one thread behind us: the thread sanitizer starts one of its own along with the first.
Holdings holdingsAtStart() {
  std::thread([] {}).join();
  return holdings();
}

void expectNothingLeftSince(const Holdings& before) {
  // A worker thread outlives the delivery of its result by a moment.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (holdings().threads > before.threads && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_LE(holdings().threads, before.threads);
  EXPECT_EQ(holdings().descriptors, before.descriptors);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(Process, givesOutputAndExitStatus) {
  ::signal(SIGPIPE, SIG_IGN);  // as many hosts do; the programs must not inherit it
  const auto before = holdingsAtStart();
  const struct {
    const char* script;
    std::optional<int> status;
    std::string output;
  } rows[] = {
      {"printf out; echo err >&2", 0, "out"},
      {"printf out; exit 3", 3, "out"},
      {"kill -9 $$", std::nullopt, ""},
      {"exec >&-; exit 0", 0, ""},
      {"head -c 300000 /dev/zero | tr '\\0' x", 0, std::string(300'000, 'x')},
      {"cat; readlink /proc/self/fd/0 /proc/self/fd/2", 0, "/dev/null\n/dev/null\n"},
      {"ls /proc/self/fd", 0, "0\n1\n2\n3\n"},  // 3 is the folder being listed
      {"grep SigBlk: /proc/self/status | tr -dc 1-9a-f", 0, ""},
      {"kill -PIPE $$; echo alive", std::nullopt, ""},
      {"(sleep 0.1; printf late) & printf early", 0, "earlylate"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    const auto result =
        Async<std::optional<ProcessResult>>([&] {
          return runProcess("/bin/sh", {"-c", row.script}, StandardOutput::captured);
        }).get();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exitStatus, row.status);
    EXPECT_EQ(std::string(result->output.begin(), result->output.end()), row.output);
  }
  EXPECT_FALSE(runProcess("/no/such/program", {}, StandardOutput::captured));
  EXPECT_FALSE(runProcess("/etc/passwd", {}, StandardOutput::discarded));
  const auto quiet = runProcess("/bin/echo", {"x"}, StandardOutput::discarded);
  ASSERT_TRUE(quiet);
  EXPECT_THAT(quiet->output, IsEmpty());
  expectNothingLeftSince(before);
}

TEST(Process, manyRunsLeaveNothingBehind) {
  const auto before = holdingsAtStart();
  for (int i = 0; i < 1000; ++i) {
    const auto result =
        runProcess(i % 2 ? "/bin/false" : "/bin/true", {}, StandardOutput::captured);
    ASSERT_TRUE(result && result->exitStatus == i % 2);
  }
  expectNothingLeftSince(before);
}

TEST(DeviceCatalog, discoveryWithoutTheToolsFindsNothingAndLeavesNothingBehind) {
  if (std::filesystem::exists("/usr/bin/xcrun")) GTEST_SKIP() << "the developer tools are here";
  const auto before = holdingsAtStart();
  EXPECT_THAT(DeviceCatalog::discoverSimulators(false).get(), IsEmpty());
  EXPECT_THAT(DeviceCatalog::discoverDevices(false).get(), IsEmpty());
  EXPECT_FALSE(DeviceCatalog::toolExists("simctl").get());
  EXPECT_EQ(DeviceCatalog::runJSON({"simctl"}).get(), std::nullopt);
  for (int i = 0; i < 1000; ++i) {
    auto simulators = DeviceCatalog::discoverSimulators(true);
    auto unheard = DeviceCatalog::discoverDevices(true);
    ASSERT_THAT(simulators.get(), IsEmpty());
  }
  expectNothingLeftSince(before);
}

// A coroutine that begins at once; its frame goes when it ends, or when `handle` is destroyed.
struct Task {
  // NOLINTBEGIN(readability-identifier-naming): the language names these.
  struct promise_type {
    Task get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
    std::suspend_never initial_suspend() { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
  // NOLINTEND(readability-identifier-naming)
  std::coroutine_handle<promise_type> handle;
};

// Sends on what it awaits. All a coroutine uses has to be its parameters, which its frame keeps.
Task forward(Async<int> source, std::promise<std::pair<int, std::thread::id>> sink) {
  const int value = co_await source;
  sink.set_value({value, std::this_thread::get_id()});
}

TEST(Async, worksOnQuietThreadsSeveralAtOnce) {
  std::barrier everyone(4);  // passed only if all four run at the same time
  std::vector<Async<std::thread::id>> running;
  running.reserve(4);
  for (int i = 0; i < 4; ++i) {
    running.emplace_back([&] {
      everyone.arrive_and_wait();
      return std::this_thread::get_id();
    });
  }
  std::set<std::thread::id> threads{std::this_thread::get_id()};
  for (auto& async : running) threads.insert(async.get());
  EXPECT_THAT(threads, SizeIs(5));

  const auto isBlocked = [](int signal) {
    return Async<bool>([signal] {
             sigset_t blocked;
             ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
             return ::sigismember(&blocked, signal) == 1;
           })
        .get();
  };
  EXPECT_TRUE(isBlocked(SIGINT) && isBlocked(SIGCHLD));
  EXPECT_FALSE(isBlocked(SIGSEGV));
  EXPECT_GE(Async<int>([] { return ::getpriority(PRIO_PROCESS, 0); }).get(), 10);
  EXPECT_LT(::getpriority(PRIO_PROCESS, 0), 10);
}

TEST(Async, resumesACoroutineOnceOnTheThreadOfTheWork) {
  std::latch gate(1);
  std::promise<std::pair<int, std::thread::id>> sink;
  auto result = sink.get_future();
  forward(Async<int>([&] {
            gate.wait();
            return 7;
          }),
          std::move(sink));
  gate.count_down();  // reached only because the coroutine did not block this thread
  const auto [value, thread] = result.get();
  EXPECT_EQ(value, 7);
  EXPECT_NE(thread, std::this_thread::get_id());

  // The result may come before, while and after the coroutine suspends.
  for (int i = 0; i < 2000; ++i) {
    std::promise<std::pair<int, std::thread::id>> next;
    auto answer = next.get_future();
    forward(i % 10 ? Async<int>([i] { return i; }) : Async<int>::ready(i), std::move(next));
    ASSERT_EQ(answer.get().first, i);
  }
}

TEST(Async, mayBeDroppedAwaitedOrNot) {
  const auto before = holdingsAtStart();
  std::latch gate(1);
  const auto held = std::make_shared<int>(7);
  const auto work = [&gate, held] {
    gate.wait();
    return *held;
  };
  {
    const Async<int> dropped(work);
  }
  std::promise<std::pair<int, std::thread::id>> sink;
  auto result = sink.get_future();
  const auto waiting = forward(Async<int>(work), std::move(sink));
  waiting.handle.destroy();
  EXPECT_THROW(result.get(), std::future_error);  // the promise went with the frame
  gate.count_down();
  expectNothingLeftSince(before);
  EXPECT_EQ(held.use_count(), 2);  // this test's, and that of `work`
}

}  // namespace
}  // namespace runeflow
