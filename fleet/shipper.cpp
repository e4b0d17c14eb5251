// SPDX-License-Identifier: MIT

#include "fleet/shipper.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string_view>
#include <utility>

#include "fleet/sql.h"
#include "host/database.h"

namespace fleet {

using runeflow::EventStore;
using runeflow::FetchedRow;
using runeflow::LogRow;
using runeflow::RecordPreview;

namespace {

// Bounds of a block.
constexpr std::uint32_t kMostRows = 32'768;
constexpr std::size_t kMostBytes = std::size_t{6} << 20U;
constexpr std::chrono::milliseconds kLongestGathering(1'000);
// What is read at once from the database: the records, and the code points of each message.
constexpr std::int64_t kRowsAtOnce = 256;
constexpr std::int64_t kCharactersAtOnce = 8'192;
// A larger message is a block of its own, and is not read before the block that is on its way has
// arrived: with its words and the copies that SQLite makes it takes four times its size.
constexpr std::int64_t kLargeMessage = 1 << 20U;  // code points
// How much of a message is compared when a capture resumes.
constexpr std::size_t kComparedBytes = 65'536;

std::uint64_t fingerprintOf(const LogRow& row) {
  auto fingerprint = static_cast<std::uint64_t>(microsecondsOf(row));
  const auto add = [&](std::uint64_t number) {
    constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15;
    fingerprint = (std::rotl(fingerprint, 25) ^ number) * kOdd;
  };
  const auto addText = [&](std::string_view text) {
    add(text.size());
    add(std::hash<std::string_view>()(text));
  };
  add(static_cast<std::uint64_t>(runeflow::rawValue(row.level())));
  addText(row.message());
  for (const auto& slot : row.slots()) {
    add(slot ? 1 : 0);
    addText(slot.value_or(std::string_view()));
  }
  if (!row.ctx()) return fingerprint;
  for (const auto& [key, value] : *row.ctx()) {
    addText(key);
    addText(value);
  }
  return fingerprint;
}

// Whether the record is still the one that was sent. Only what the table keeps is compared, and of
// the message its length and its beginning, which is all that `shipped` holds.
bool isSame(const FetchedRow& local, const Record& shipped, std::uint64_t messageBytes) {
  const auto& row = local.row;
  const auto hasContext = [](const LogRow& r) { return r.ctx() && !r.ctx()->empty(); };
  bool same = microsecondsOf(row) == shipped.microseconds && row.level() == shipped.row.level() &&
              row.message().size() == messageBytes &&
              row.message().substr(0, kComparedBytes) == shipped.row.message() &&
              hasContext(row) == hasContext(shipped.row) &&
              (!hasContext(row) || row.ctx() == shipped.row.ctx());
  for (std::int64_t i = 0; i < static_cast<std::int64_t>(LogRow::slotCount); ++i) {
    const auto slot = shipped.row.slot(i);
    same = same && (!slot || slot == row.slot(i));
  }
  return same;
}

std::optional<FetchedRow> recordAt(EventStore& store, std::int64_t seq) {
  auto rows = store.fetchRange(seq, seq);
  if (rows.empty()) return std::nullopt;
  return std::move(rows.front());
}

// Returns the record of a preview with its whole message.
std::optional<FetchedRow> wholeRecord(EventStore& store, RecordPreview&& preview) {
  if (preview.messageCharacters > kCharactersAtOnce) return recordAt(store, preview.seq);
  return FetchedRow{preview.seq, std::move(preview.row)};
}

runeflow::WordTokenizer makeTokenizer() {
  auto tokenizer = runeflow::WordTokenizer::create();
  if (!tokenizer) host::fail("this SQLite has no FTS5, which the words of the table need");
  return std::move(*tokenizer);
}

}  // namespace

std::string defaultCaptureName(const std::string& path) {
  std::array<char, 256> name{};
  ::gethostname(name.data(), name.size() - 1);
  return fmt::format("{}/{}", name.data(), std::filesystem::path(path).stem().string());
}

Shipper::Shipper(Engine& engine, EventStore& store, std::string path, std::string capture,
                 ShipHooks hooks)
    : engine_(engine),
      store_(store),
      path_(std::move(path)),
      capture_(std::move(capture)),
      hooks_(std::move(hooks)),
      tokenizer_(makeTokenizer()),
      insert_(insertStatement(engine.address(), store.descriptor())) {}

Shipper::~Shipper() {
  if (sending_.valid()) sending_.wait();
}

ShipReport Shipper::run(bool follows, int milliseconds) {
  try {
    retrying([this] { resume(); }, hooks_.say, hooks_.wait);
    loop(follows, milliseconds);
    finishSending();
  } catch (const Interrupted&) {
    report_.wasInterrupted = true;
  }
  return report_;
}

std::string Shipper::whereGeneration(std::uint32_t generation) const {
  return fmt::format("FROM {} WHERE capture = {} AND generation = {}", tableName(engine_.address()),
                     sqlText(capture_), generation);
}

std::int64_t Shipper::countOf(std::uint32_t generation, const std::string& seqs) {
  const auto answer =
      engine_.ask(fmt::format("SELECT toInt64(uniqExact(seq)) {} AND {} FORMAT RowBinary",
                              whereGeneration(generation), seqs));
  return RowBinaryReader(answer).int64();
}

void Shipper::resume() {
  const auto newest = engine_.ask(
      fmt::format("SELECT generation, max(seq) FROM {} WHERE capture = {} GROUP BY generation "
                  "ORDER BY generation DESC LIMIT 1 FORMAT RowBinary",
                  tableName(engine_.address()), sqlText(capture_)));
  if (newest.empty()) return;
  RowBinaryReader reader(newest);
  const auto generation = reader.uint32();
  const auto seq = reader.int64();
  const auto found = engine_.ask(fmt::format(
      "SELECT block, block_end, block_rows, toUInt64(length(message)), {} {} AND seq = {} LIMIT 1 "
      "FORMAT RowBinary",
      recordColumns(fmt::format("substring(message, 1, {})", kComparedBytes)),
      whereGeneration(generation), sqlNumber(seq)));
  RowBinaryReader row(found);
  const auto first = row.int64();
  const auto last = row.int64();
  const auto rows = row.uint32();
  const auto messageBytes = row.uint64();
  const auto shipped = readRecord(row);
  if (reader.isShort() || row.isShort()) {
    host::fail("{} has no table of a fleet; create it with runeflow ship --create",
               engine_.address().text());
  }
  const auto local = recordAt(store_, seq);
  const auto largest = store_.maxSeq();
  host::failIfIncomplete(store_, path_);
  if (largest < seq || (local && (shipped.kind != store_.descriptor().id() ||
                                  !isSame(*local, shipped, messageBytes)))) {
    generation_ = generation + 1;
    next_ = 1;
    hooks_.say(
        fmt::format("{} is not the database that '{}' was shipped from, or it was cleared: "
                    "generation {} begins",
                    path_, capture_, generation_));
    return;
  }
  generation_ = generation;
  next_ = seq + 1;
  if (local) newest_ = markOf(*local);
  continueBlock(first, last, rows);
}

// Goes back to the beginning of the newest block unless all of its records are there.
void Shipper::continueBlock(std::int64_t first, std::int64_t last, std::uint32_t rows) {
  if (countOf(generation_, "block = " + sqlNumber(first)) >= rows) return;
  const auto smallest = store_.minSeq();
  newest_.reset();
  next_ = std::max(first, smallest);
  if (next_ <= last) blockEnd_ = last;
  if (smallest <= first) return;
  const auto present = countOf(
      generation_, fmt::format("seq >= {} AND seq < {}", sqlNumber(first), sqlNumber(smallest)));
  noteDeleted(smallest - first - present);
}

void Shipper::loop(bool follows, int milliseconds) {
  while (true) {
    const auto start = std::chrono::steady_clock::now();
    if (auto block = gather()) {
      finishSending();
      sending_ = std::async(std::launch::async, [this, block = std::move(*block)] {
        send(block);
        return Sent{block.generation, block.count};
      });
      if (next_ <= report_.last) continue;
    }
    finishSending();
    if (!follows) return;
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    if (hooks_.wait(std::max(0, milliseconds - static_cast<int>(passed.count())))) {
      throw Interrupted();
    }
  }
}

void Shipper::finishSending() {
  if (!sending_.valid()) return;
  const auto sent = sending_.get();
  report_.records += sent.rows;
  report_.generation = sent.generation;
  ++report_.blocks;
  hooks_.progress(report_);
}

void Shipper::send(const InsertBlock& block) {
  bool isRepeated = false;
  retrying(
      [&] {
        // A block whose answer was lost may be there.
        if (isRepeated &&
            countOf(block.generation, "block = " + sqlNumber(block.first)) >= block.count) {
          return;
        }
        isRepeated = true;
        engine_.insert(insert_, block.rows);
      },
      hooks_.say, hooks_.wait);
}

Shipper::Mark Shipper::markOf(const FetchedRow& record) {
  return {record.seq, fingerprintOf(record.row)};
}

// Whether the local database was cleared, or replaced by another, since the newest record was read.
bool Shipper::isNewGeneration() {
  return newest_ && report_.last > 0 && (report_.last < newest_->seq || !isStored(*newest_));
}

// Whether the record is still in the database, or was deleted by the size cap.
bool Shipper::isStored(const Mark& record) {
  const auto now = recordAt(store_, record.seq);
  return now ? markOf(*now) == record : store_.minSeq() > record.seq;
}

// Reads the records of the next block; absent if there are none. Between two reads the database may
// be cleared. The record before the block, the first and the last are therefore read again: the
// records of two generations never become one block.
std::optional<InsertBlock> Shipper::gather() {
  while (true) {
    report_.last = store_.maxSeq();
    if (isNewGeneration()) {
      ++generation_;
      next_ = 1;
      newest_.reset();
      blockEnd_.reset();
      hooks_.say(fmt::format("{} was cleared: generation {} begins", path_, generation_));
    }
    skipDeleted(store_.minSeq());
    BlockBuilder builder({capture_, generation_, store_.descriptor()}, tokenizer_);
    const auto ends = readBlock(builder);
    host::failIfIncomplete(store_, path_);
    const bool isOneGeneration = (!newest_ || isStored(*newest_)) &&
                                 (!ends || (isStored(ends->first) && isStored(ends->second)));
    if (isOneGeneration) {
      blockEnd_.reset();
      if (!ends) return std::nullopt;
      newest_ = ends->second;
      next_ = newest_->seq + 1;
      return builder.finish();
    }
  }
}

// Fills a block. Returns its first and its last record; absent if there are none.
std::optional<std::pair<Shipper::Mark, Shipper::Mark>> Shipper::readBlock(BlockBuilder& builder) {
  std::optional<std::pair<Mark, Mark>> ends;
  const auto end = std::chrono::steady_clock::now() + kLongestGathering;
  const auto last = std::min(blockEnd_.value_or(report_.last), report_.last);
  constexpr std::size_t kLongestRow = 65'536;  // of most logs
  if (last - next_ > kRowsAtOnce) builder.reserve(kMostBytes + kLongestRow);
  bool hasLarge = false;
  const auto isFull = [&] {
    return !blockEnd_ && (hasLarge || builder.count() >= kMostRows ||
                          builder.bytes() >= kMostBytes || std::chrono::steady_clock::now() >= end);
  };
  for (auto seq = next_; seq <= last; seq += kRowsAtOnce) {
    for (auto& preview :
         store_.fetchPreviewRange(seq, std::min(seq + kRowsAtOnce - 1, last), kCharactersAtOnce)) {
      const bool isLarge = preview.messageCharacters > kLargeMessage;
      if (isFull() || (isLarge && builder.count() > 0 && !blockEnd_)) return ends;
      if (isLarge) finishSending();
      hasLarge = hasLarge || isLarge;
      const auto record = wholeRecord(store_, std::move(preview));
      if (!record) continue;  // deleted in between
      builder.add(*record);
      const auto mark = markOf(*record);
      ends = std::pair(ends ? ends->first : mark, mark);
    }
  }
  return ends;
}

void Shipper::skipDeleted(std::int64_t smallest) {
  if (smallest <= next_) return;
  noteDeleted(smallest - next_);
  next_ = smallest;
  newest_.reset();
  if (blockEnd_ && *blockEnd_ < smallest) blockEnd_.reset();
}

void Shipper::noteDeleted(std::int64_t records) {
  if (records <= 0) return;
  report_.deleted += records;
  hooks_.say(fmt::format("{} records of {} were deleted by its size cap before they were sent",
                         records, path_));
}

}  // namespace fleet
