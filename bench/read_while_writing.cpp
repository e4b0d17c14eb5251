// SPDX-License-Identifier: MIT

// Reads from a database every 16 ms, as the table of a log viewer does, while a capture writes to
// it at full speed. Fails if a read misses stored records or returns them out of order.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "bench/bare.h"
#include "runeflow/capture/capture_session.h"
#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/query/query_parser.h"

using namespace runeflow;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::milliseconds kPoll{16};
constexpr std::int64_t kNewest = 200;

// A seq is the number of a record: its SQLite rowid.
struct Findings {
  std::int64_t reads = 0;
  std::int64_t failed = 0;      // reads that missed stored records
  std::int64_t disordered = 0;  // records whose seq is not above the one before
  std::vector<double> fetchMilliseconds;
};

void readOnce(EventStore& store, const LogQuery& query, std::int64_t& seen, Findings& findings) {
  const auto last = store.maxSeq();
  const auto start = SteadyClock::now();
  const auto records = store.fetchRange(last - kNewest + 1, last);
  findings.fetchMilliseconds.push_back(
      std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count());
  const auto matching = store.countMatching(query);
  ++findings.reads;
  if (last == 0) return;
  const bool mustMatch = last > 1'000;  // about one record in 40 has the tag
  if (records.empty() || (mustMatch && matching == 0) || last < seen) ++findings.failed;
  for (std::size_t i = 1; i < records.size(); ++i) {
    if (records[i].seq <= records[i - 1].seq) ++findings.disordered;
  }
  seen = last;
}

}  // namespace

int main() {
  const int seconds = bench::rowCount(60);  // here ROWS sets the number of seconds
  const bench::Folder folder;
  const auto path = folder.file("a.db");
  bench::createDatabase(path, SourceDescriptor::logcat());
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) return 1;
  CaptureSession session(path, SourceDescriptor::logcat());
  std::promise<void> ended;
  session.run(
      ends[0], [] { return std::make_unique<LogcatDecoder>([] { return Timestamp{}; }); },
      [&ended] { ended.set_value(); });

  std::atomic<bool> isOver = false;
  std::jthread writer([&] {
    const auto text = bench::logcatLines(100'000);
    while (!isOver) {
      for (std::size_t at = 0; at < text.size() && !isOver; at += 65'536) {
        const auto size = std::min<std::size_t>(65'536, text.size() - at);
        if (::write(ends[1], text.data() + at, size) != static_cast<ssize_t>(size)) return;
      }
    }
    ::close(ends[1]);
  });

  auto store = *EventStore::open(path, false, SourceDescriptor::logcat());
  const auto query = QueryParser::parse("tag:Component07", SourceDescriptor::logcat(), false);
  Findings findings;
  std::int64_t seen = 0;
  const auto start = SteadyClock::now();
  for (auto next = start; next - start < std::chrono::seconds(seconds); next += kPoll) {
    std::this_thread::sleep_until(next);
    readOnce(store, query, seen, findings);
  }
  isOver = true;
  ended.get_future().wait();
  auto& times = findings.fetchMilliseconds;
  std::ranges::sort(times);
  fmt::print(
      "{} s, {} records written, {} polls: {} failed reads, {} out of order; fetchRange of {} p50 "
      "{:.2f} ms, p99 {:.2f} ms\n",
      seconds, session.progress().rowsStored, findings.reads, findings.failed, findings.disordered,
      kNewest, times[times.size() / 2], times[times.size() * 99 / 100]);
  return findings.failed == 0 && findings.disordered == 0 ? 0 : 1;
}
