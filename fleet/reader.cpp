// SPDX-License-Identifier: MIT

#include "fleet/reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <span>

#include "fleet/kinds.h"
#include "fleet/row_binary.h"
#include "fleet/sql.h"

namespace fleet {

using runeflow::ValueCount;

namespace {

constexpr std::int64_t kPartRecords = 50'000;  // that the engine sorts at once
constexpr const char* kKeyColumns = "time, capture, generation, seq";
constexpr const char* kAscending = "ORDER BY time, capture, generation, seq";
constexpr const char* kDescending = "ORDER BY time DESC, capture DESC, generation DESC, seq DESC";
// How long a block may take from the engine's reading of its clock to its being visible, and the
// clocks of the engine's servers may differ.
constexpr std::int64_t kRecentSeconds = 300;

// The records that arrived in the last seconds. Parts are by the day of arrival, so that the days
// before are not read; servers may be in different time zones.
std::string arrivedWithin(std::int64_t seconds) {
  return fmt::format("day >= toDate(now() - {0}) - 1 AND shipped >= now() - {0}", seconds);
}

RecordKey readKey(RowBinaryReader& reader) {
  const auto microseconds = reader.int64();
  std::string capture(reader.text());
  const auto generation = reader.uint32();
  return {microseconds, std::move(capture), generation, reader.int64()};
}

std::string tupleOf(const RecordKey& key) {
  return fmt::format("({}, {}, {}, {})", sqlNumber(key.microseconds), sqlText(key.capture),
                     key.generation, sqlNumber(key.seq));
}

// The records from a key on (">=") or behind it (">").
std::string from(std::string_view op, const RecordKey& key) {
  return fmt::format("{} AND (time, capture, generation, seq) {} {}", notBefore(key.microseconds),
                     op, tupleOf(key));
}

std::string both(const std::string& condition, const std::string& other) {
  return fmt::format("{} AND {}", condition, other);
}

std::int64_t microsecondsNow() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Ends a stream of an answer when the caller wants no more.
struct Enough {};

// Passes the rows of a statement on. Fails if the answer ends within a row.
void forEachRow(Engine& engine, const std::string& statement,
                const std::function<void(RowBinaryReader&)>& onRow) {
  RowBinaryStream rows(onRow);
  engine.stream(statement, [&](std::string_view piece) { rows.append(piece); });
  if (!rows.finish()) {
    host::fail("{}: the answer ended within a row", engine.address().server);
  }
}

}  // namespace

Reader::Reader(Engine& engine)
    : engine_(engine), tokenizer_([] {
        auto tokenizer = runeflow::WordTokenizer::create();
        if (!tokenizer) host::fail("this SQLite has no FTS5, which the words of the table need");
        return std::move(*tokenizer);
      }()) {}

std::string Reader::condition(const Question& question) const {
  return conditionOf(question, tokenizer_);
}

std::string Reader::select(const std::string& what, const std::string& condition,
                           const std::string& rest) const {
  return fmt::format("SELECT {} FROM {} WHERE {} {}", what, tableName(engine_.address()), condition,
                     rest);
}

std::int64_t Reader::count(const std::string& condition) {
  const auto answer = engine_.ask(
      fmt::format("SELECT toInt64(sum(n)) FROM ({}) FORMAT RowBinary",
                  select("uniqExact(seq) AS n", condition, "GROUP BY capture, generation")));
  return RowBinaryReader(answer).int64();
}

std::optional<std::int64_t> Reader::newestTime() {
  const auto answer = engine_.ask(select("max(time)", "1", "HAVING count() > 0 FORMAT RowBinary"));
  if (answer.empty()) return std::nullopt;
  return RowBinaryReader(answer).int64();
}

void Reader::forEach(const std::string& condition, const OnRecord& onRecord) {
  // Each hour with the number of its matches. Duplicates count here; the number is only a size.
  std::vector<std::pair<std::int64_t, std::int64_t>> hours;
  forEachRow(engine_,
             select(fmt::format("{} AS hour, toInt64(count())", kHour), condition,
                    "GROUP BY hour ORDER BY hour FORMAT RowBinary"),
             [&](RowBinaryReader& reader) {
               const auto hour = reader.int64();
               const auto matches = reader.int64();
               if (!reader.isShort()) hours.emplace_back(hour, matches);
             });
  for (std::size_t first = 0; first < hours.size();) {
    std::int64_t matches = 0;
    auto end = first;
    while (end < hours.size() && (end == first || matches + hours[end].second <= kPartRecords)) {
      matches += hours[end++].second;
    }
    const auto span = fmt::format("{} >= {} AND {} <= {}", kHour, sqlNumber(hours[first].first),
                                  kHour, sqlNumber(hours[end - 1].first));
    if (!forPart(both(condition, span), onRecord)) return;
    first = end;
  }
}

bool Reader::forPart(const std::string& condition, const OnRecord& onRecord) {
  std::optional<RecordKey> last;
  bool goesOn = true;
  std::int64_t rows = kPartRecords;
  while (goesOn && rows >= kPartRecords) {
    rows = 0;
    const auto rest = last ? both(condition, from(">", *last)) : condition;
    const auto statement =
        select(recordColumns(), rest,
               fmt::format("{} LIMIT {} FORMAT RowBinary", kAscending, kPartRecords));
    try {
      forEachRow(engine_, statement, [&](RowBinaryReader& reader) {
        const auto record = readRecord(reader);
        if (reader.isShort()) return;
        ++rows;
        auto key = keyOf(record);
        if (last == key) return;  // not merged yet
        last = std::move(key);
        if (!onRecord(record)) throw Enough();
      });
    } catch (const Enough&) {
      goesOn = false;
    }
  }
  return goesOn;
}

std::optional<RecordKey> Reader::keyOfNewest(const std::string& condition, std::int64_t records) {
  constexpr std::int64_t kDuplicates = 64;  // room for blocks that were sent twice
  constexpr std::int64_t kWidestHours = std::int64_t{24} * 180;
  const auto now = microsecondsNow();
  std::int64_t hours = 1;
  std::int64_t limit = records + kDuplicates;
  while (true) {
    const bool isAll = hours > kWidestHours;
    const auto recent =
        isAll ? condition : both(condition, notBefore(now - hours * kMicrosecondsPerHour));
    std::optional<RecordKey> oldest;
    std::int64_t distinct = 0;
    std::int64_t rows = 0;
    forEachRow(engine_,
               select(kKeyColumns, recent,
                      fmt::format("{} LIMIT {} FORMAT RowBinary", kDescending, limit)),
               [&](RowBinaryReader& reader) {
                 auto key = readKey(reader);
                 if (reader.isShort()) return;
                 ++rows;
                 if (distinct == records || oldest == key) return;
                 oldest = std::move(key);
                 ++distinct;
               });
    if (distinct == records) return oldest;
    if (rows == limit) {
      limit *= 2;
    } else if (isAll) {
      return oldest;
    } else {
      hours *= 8;
    }
  }
}

void Reader::forNewest(const std::string& condition, std::int64_t records,
                       const OnRecord& onRecord) {
  if (const auto oldest = keyOfNewest(condition, records)) {
    forPart(both(condition, from(">=", *oldest)), onRecord);
  }
}

std::vector<ValueCount> Reader::values(const std::string& condition, const std::string& column,
                                       const std::string& prefix, std::int64_t limit) {
  const auto name = sqlName(column);
  const auto text = column == "level"                         ? fmt::format("toString({})", name)
                    : column == "capture" || column == "kind" ? name
                                                              : fmt::format("ifNull({}, '')", name);
  std::string lower(prefix);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
  }
  const auto wanted = fmt::format("{} AND {} != '' AND startsWith(lower({}), {})", condition, text,
                                  text, sqlText(lower));
  std::vector<ValueCount> values;
  forEachRow(engine_,
             fmt::format("SELECT value, toInt64(sum(n)) AS records FROM ({}) GROUP BY value "
                         "ORDER BY records DESC, value {} FORMAT RowBinary",
                         select(fmt::format("{} AS value, uniqExact(seq) AS n", text), wanted,
                                "GROUP BY value, capture, generation"),
                         limit < 0 ? "" : fmt::format("LIMIT {}", limit)),
             [&](RowBinaryReader& reader) {
               const auto value = reader.text();
               const auto records = reader.int64();
               if (!reader.isShort()) values.push_back({std::string(value), records});
             });
  return values;
}

std::vector<CaptureSummary> Reader::captures(std::int64_t limit) {
  std::vector<CaptureSummary> captures;
  forEachRow(
      engine_,
      select("capture, generation, any(kind), toInt64(uniqExact(seq)), min(seq), max(seq), "
             "min(time), max(time)",
             "1",
             fmt::format("GROUP BY capture, generation ORDER BY capture, generation LIMIT {} "
                         "FORMAT RowBinary",
                         limit)),
      [&](RowBinaryReader& reader) {
        CaptureSummary summary{.capture = std::string(reader.text()),
                               .generation = reader.uint32(),
                               .kind = std::string(reader.text()),
                               .records = reader.int64(),
                               .firstSeq = reader.int64(),
                               .lastSeq = reader.int64(),
                               .firstTime = reader.int64(),
                               .lastTime = reader.int64()};
        if (!reader.isShort()) captures.push_back(std::move(summary));
      });
  return captures;
}

Follower::Follower(Reader& reader) : reader_(reader) {
  for (const auto& [capture, span] : spansOf(arrivedWithin(kRecentSeconds))) {
    seen_[capture] = span.largest;
  }
}

std::map<Follower::Capture, Follower::Span> Follower::spansOf(const std::string& recent) {
  std::map<Capture, Span> spans;
  forEachRow(reader_.engine_,
             reader_.select("capture, generation, min(seq), max(seq)", recent,
                            "GROUP BY capture, generation FORMAT RowBinary"),
             [&](RowBinaryReader& reader) {
               std::string capture(reader.text());
               const auto generation = reader.uint32();
               const auto smallest = reader.int64();
               const auto largest = reader.int64();
               if (reader.isShort()) return;
               spans[{std::move(capture), generation}] = {smallest, largest};
             });
  return spans;
}

void Follower::poll(const std::string& condition, const Reader::OnRecord& onRecord) {
  constexpr std::size_t kCapturesAtOnce = 100;  // bounds the length of a statement
  // A caller that was held up has to look back further.
  const auto now = std::chrono::steady_clock::now();
  const auto pause = std::chrono::ceil<std::chrono::seconds>(now - polled_).count();
  const auto recent = arrivedWithin(kRecentSeconds + pause);
  const auto spans = spansOf(recent);
  std::vector<std::pair<Capture, Span>> arrived;  // the seqs behind `smallest` are new
  for (const auto& [capture, span] : spans) {
    // All that is recent of a capture that was not recent before is new.
    const auto known = seen_.find(capture);
    const auto after = known == seen_.end() ? span.smallest - 1 : known->second;
    if (after < span.largest) arrived.push_back({capture, {after, span.largest}});
  }
  while (!arrived.empty()) {
    const std::span some(arrived.data(), std::min(kCapturesAtOnce, arrived.size()));
    std::vector<std::string> conditions;
    for (const auto& [capture, span] : some) {
      conditions.push_back(fmt::format(
          "(capture = {} AND generation = {} AND seq > {} AND seq <= {})", sqlText(capture.first),
          capture.second, sqlNumber(span.smallest), sqlNumber(span.largest)));
    }
    reader_.forPart(fmt::format("{} AND ({}) AND {}", arrivedWithin(2 * kRecentSeconds + pause),
                                fmt::join(conditions, " OR "), condition),
                    onRecord);
    for (const auto& [capture, span] : some) seen_[capture] = span.largest;
    arrived.erase(arrived.begin(), arrived.begin() + static_cast<std::ptrdiff_t>(some.size()));
  }
  polled_ = now;
}

bool Follower::willPass(const Record& record) const {
  const auto known = seen_.find({record.capture, record.generation});
  return known != seen_.end() && known->second < record.seq;
}

}  // namespace fleet
