// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <barrier>
#include <csignal>
#include <filesystem>
#include <future>
#include <latch>
#include <memory>
#include <tuple>

#include "runeflow/devices/device_catalog.h"
#include "runeflow/platform/host_p.h"
#include "runeflow/platform/process_p.h"
#include "support.h"

namespace runeflow {
namespace {

using DeviceCatalog::parseDevices;
using DeviceCatalog::parseSimulators;
using test::bytes;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

using Texts = std::pair<std::string_view, std::string_view>;
using DevicesTest = test::LeavesNothingBehind;

// The beginnings of a simctl and a devicectl document. Each ends inside the object of its first
// device; the tests append the rest.
const std::string kSimulator =
    R"({"devices":{".SimRuntime.":[{"udid":"","name":"","state":"Booted")";
const std::string kPhone = R"({"result":{"devices":[{"hardwareProperties":{"reality":"physical"})";

TEST(SourceRef, labelsFollowTypesVersionsAndRuntimes) {
  const Texts icons[] = {{"", "iphone"}, {"Mac TV iPad", "ipad"}, {"fitvest", "appletv"}};
  for (const auto& [type, symbol] : icons) EXPECT_EQ(SourceRef::symbolForDeviceType(type), symbol);
  const Texts releases[] = {
      {"6.1.0-13-amd64", "6.1"},  {"14.6.1", "14.6.1"}, {"15", "15.0"},    {"", "0.0"},
      {"6.99999999999.3", "6.0"}, {"6.-1.2", "6.0"},    {"6.1.-3", "6.1"}, {"5.10-rc1", "5.10"}};
  for (const auto& [text, label] : releases) EXPECT_EQ(versionText(parseOsVersion(text)), label);
  EXPECT_THAT(SourceRef::thisMac().osVersion, MatchesRegex("macOS [1-9][0-9.]+"));
  const Texts runtimes[] = {{"x.SimRuntime.--", "--"},
                            {"x.SimRuntime.-tvOS--17-2-", "tvOS 17.2"},
                            {"x.SimRuntime.", "iOS"},
                            {".SimRuntime.-.SimRuntime.xrOS-2", "visionOS 2"},
                            {".SimRuntime.SimRuntime.1", "SimRuntime.1"}};
  for (const auto& [key, os] : runtimes) EXPECT_EQ(DeviceCatalog::osLabel(key), os);
}

TEST(DeviceCatalog, bootedSimulatorsAreListedByName) {
  const auto list = parseSimulators(bytes(R"({"generation": [1, null], "devices": {
    "x.SimRuntime.xrOS-1-0": [{"udid": "1", "name": "b", "state": "Booted", "isAvailable": true},
      {"udid": "2", "name": "É", "state": "Booted", "deviceTypeIdentifier": "x.Apple-TV"},
      {"udid": "3", "name": "a", "state": "booted"},
      {"udid": "4", "name": "a", "state": "Booted", "isAvailable": false}],
    "x.SimRuntime.iOS-17-2": [{"udid": "6", "name": "iPad", "state": "Booted", "isAvailable": null},
      {"udid": "8", "name": "b", "state": "Booted"}, {"udid": "9", "name": "\ud83d\ude00",
      "state": "Booted"}, {"udid": "5", "name": 5, "name": "\uff01", "state": "Booted"}],
    "x.iOS-17-2": [{"udid": "0", "name": "A", "state": "Booted"}]}})"));
  std::string ids;
  for (const auto& source : list) ids += source.id + " ";
  // Sorted by code point, not by UTF-16 code unit. Equal names are in the order of their runtimes.
  ASSERT_EQ(ids, "sim:8 sim:1 sim:6 sim:2 sim:5 sim:9 ");
  constexpr auto kKind = SourceRef::Kind::simulator;
  EXPECT_EQ(list[2], (SourceRef{kKind, "sim:6", "iPad", "iOS 17.2", "6", {}, true, "ipad"}));
  EXPECT_EQ(list[3].symbol + " of " + list[3].osVersion, "appletv of visionOS 1.0");
}

TEST(DeviceCatalog, physicalDevicesAreListedWithTheirKnownProperties) {
  const auto list = parseDevices(bytes(kPhone + R"(},
    {"identifier": "I1", "deviceProperties": {"name": "Phone", "osVersionNumber": "17.4"},
     "hardwareProperties": {"marketingName": "iPhone 15 Pro", "deviceType": "iPhone", "udid": "U1",
       "platform": "iOS", "reality": "physical"}, "connectionProperties": {"transportType": "wired",
       "tunnelState": "connected", "pairingState": "paired"}},
    {"deviceProperties": {"osVersionNumber": "1.1"}, "connectionProperties": null,
     "hardwareProperties": {"marketingName": "Apple Vision Pro", "udid": "U2", "platform": "xrOS",
       "reality": "physical"}},
    {"identifier": "I7", "new": [1.5e3]}, {"hardwareProperties": {"reality": "simulated"}},
    {"identifier": "I4", "hardwareProperties": {"reality": "physical", "platform": "macOS"}},
    {"identifier": "I5", "hardwareProperties": {"reality": "physical", "deviceType": "Mac"}}]}})"));
  ASSERT_THAT(list, SizeIs(3));
  constexpr auto kDevice = SourceRef::Kind::device;
  EXPECT_EQ(list[0], (SourceRef{kDevice, "device:U2", "Apple Vision Pro", "visionOS 1.1", "U2",
                                "Apple Vision Pro", false, "visionpro"}));
  EXPECT_EQ(list[1], (SourceRef{kDevice, list[1].id, "Device", "", {}, {}, false, "iphone"}));
  EXPECT_THAT(list[1].id, MatchesRegex("device:[0-9A-F-]{13}-4[0-9A-F]{3}-[89AB][0-9A-F-]{16}"));
  EXPECT_EQ(list[2], (SourceRef{kDevice, "device:I1", "Phone", "iOS 17.4", "U1", "iPhone 15 Pro",
                                true, "iphone"}));
}

TEST(DeviceCatalog, onlyConnectedAndPairedPhonesOnAWireAreStreamable) {
  using Field = std::optional<std::string>;
  const struct {
    Field platform, transport, tunnel, pairing;
    bool expected;
  } table[] = {
      {"iOS", "wired", "connected", "paired", true},
      {"iPadOS", "wired", "connected", "paired", true},
      {"xrOS", "wired", "connected", "paired", false},
      {{}, "wired", "connected", "paired", false},
      {"iOS", "localNetwork", "connected", "paired", false},
      {"iOS", "", "connected", "paired", false},
      {"iOS", {}, "connected", "paired", false},
      {"iOS", "wired", "disconnected", "paired", false},
      {"iOS", "wired", {}, "paired", false},
      {"iOS", "wired", "connected", "unpaired", false},
      {"iOS", "wired", "connected", {}, false},
  };
  for (const auto& row : table) {
    EXPECT_EQ(DeviceCatalog::isStreamableDeviceState(row.platform, row.transport, row.tunnel,
                                                     row.pairing),
              row.expected)
        << row.platform.value_or("-") << row.transport.value_or("-") << row.tunnel.value_or("-")
        << row.pairing.value_or("-");
  }
}

TEST(DeviceCatalog, oneFaultAnywhereInTheDocumentEmptiesTheResult) {
  const auto fail = [](const std::string& start, const std::vector<std::string_view>& ends) {
    for (const auto end : ends) {
      EXPECT_THAT(parseSimulators(bytes(start + std::string(end))), IsEmpty()) << start << end;
      EXPECT_THAT(parseDevices(bytes(start + std::string(end))), IsEmpty()) << start << end;
    }
  };
  fail("", {"", "null", "{}", R"({"devices":null})", R"({"result":{"devices":{}}})"});
  fail(kSimulator,
       {"}]}}x", std::string_view("}]}}\0x", 6), R"(,"isAvailable":1}]}})", R"(,"name":null}]}})",
        ",\"Latin-1\":\"\xE9\"}]}}", R"(,"half a pair":"\ud800"}]}})", R"(}],"other":{}}})",
        R"(}],"other":[{"udid":"U","name":"N"}]}})", R"(},{"name":"N","state":"Off"}]}})"});
  fail(kPhone, {"},1]}}", R"(},{"identifier":1}]}})", R"(},{"deviceProperties":""}]}})",
                R"(},{"hardwareProperties":{"reality":"simulated","udid":false}}]}})",
                R"(},{"connectionProperties":{"tunnelState":{}}}]}})"});
}

TEST(DeviceCatalog, nestingDepthIsLimited) {
  const auto nested = [](std::size_t more) {  // levels, besides the four of `kSimulator`
    const auto brackets = std::string(more, '[') + std::string(more, ']');
    return parseSimulators(bytes(kSimulator + R"(,"unknown":"[\"[","deep":)" + brackets + "}]}}"));
  };
  EXPECT_THAT(nested(508), SizeIs(1));
  EXPECT_THAT(nested(509), IsEmpty());
  EXPECT_THAT(parseDevices(bytes(std::string(8'000'000, '['))), IsEmpty());
}

TEST_F(DevicesTest, programsGiveOutputAndExitStatus) {
  // Many hosts (programs that use the library) ignore SIGPIPE. Child processes must not inherit it.
  ::signal(SIGPIPE, SIG_IGN);
  constexpr auto kCaptured = StandardOutput::captured;
  const std::tuple<const char*, std::optional<int>, std::string> rows[] = {
      {"printf out; echo err >&2; exit 3", 3, "out"},
      {"kill -PIPE $$; echo alive", std::nullopt, ""},
      {"head -c 300000 /dev/zero | tr '\\0' x", 0, std::string(300'000, 'x')},
      {"cat; readlink /proc/self/fd/0 /proc/self/fd/2", 0, "/dev/null\n/dev/null\n"},
      // Descriptor 3 is the folder that ls reads.
      {"ls /proc/self/fd; grep SigBlk: /proc/self/status | tr -dc 1-9a-f", 0, "0\n1\n2\n3\n"},
      {"(sleep 0.1; printf late) & printf early", 0, "earlylate"}};
  for (const auto& [script, status, output] : rows) {
    const auto run = [&] { return runProcess("/bin/sh", {"-c", script}, kCaptured); };
    const auto result = Async<std::optional<ProcessResult>>(run).get();
    ASSERT_TRUE(result) << script;
    EXPECT_EQ(result->exitStatus, status) << script;
    EXPECT_EQ(std::string(result->output.begin(), result->output.end()), output) << script;
  }
  EXPECT_FALSE(runProcess("/no/such/program", {}, kCaptured));
  EXPECT_THAT(runProcess("/bin/echo", {"x"}, StandardOutput::discarded)->output, IsEmpty());
}

TEST_F(DevicesTest, discoveryWithoutTheToolsFindsNothing) {
  if (std::filesystem::exists("/usr/bin/xcrun"))
    GTEST_SKIP() << "this machine has the developer tools";
  EXPECT_FALSE(DeviceCatalog::toolExists("simctl").get());
  EXPECT_EQ(DeviceCatalog::runJSON({"simctl"}).get(), std::nullopt);
  for (int i = 0; i < 1000; ++i) {
    auto unheard = DeviceCatalog::discoverDevices(true);
    ASSERT_THAT(DeviceCatalog::discoverSimulators(true).get(), IsEmpty());
  }
}

// A coroutine that starts at once. Its frame is destroyed when the coroutine ends, or earlier by
// handle.destroy().
struct Task {
  // NOLINTBEGIN(readability-identifier-naming): the language prescribes these names.
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

// Awaits `source` and stores the result in `sink`. Both are parameters because the coroutine frame
// owns its parameters, but not the captures of a lambda.
Task forward(Async<int> source, std::promise<int> sink) {
  sink.set_value(co_await source);
}

TEST_F(DevicesTest, workResumesACoroutineOnceUnlessItWasDestroyed) {
  const auto gate = std::make_shared<std::latch>(1);
  const auto work = [gate] { return gate->wait(), 7; };
  const Async<int> dropped(work);
  std::promise<int> sinks[2];
  auto result = sinks[0].get_future();
  auto nothing = sinks[1].get_future();
  forward(Async<int>(work), std::move(sinks[0]));
  forward(Async<int>(work), std::move(sinks[1])).handle.destroy();
  gate->count_down();  // not reached if a coroutine blocks this thread
  EXPECT_EQ(result.get(), 7);
  EXPECT_THROW(nothing.get(), std::future_error);  // the promise was destroyed with its frame

  // The result may arrive before, while or after the coroutine suspends.
  for (int i = 0; i < 2000; ++i) {
    std::promise<int> sink;
    auto answer = sink.get_future();
    forward(i % 10 ? Async<int>([i] { return i; }) : Async<int>::ready(i), std::move(sink));
    ASSERT_EQ(answer.get(), i);
  }
}

}  // namespace
}  // namespace runeflow
