// SPDX-License-Identifier: MIT

#include "fleet/shipper.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <utility>

#include "fleet/sql.h"
#include "host/database.h"

namespace fleet {

using runeflow::EventStore;
using runeflow::FetchedRow;
using runeflow::LogRow;

namespace {

// Bounds of a block. A longer record is a block of its own.
constexpr std::size_t kMostRows = 16'384;
constexpr std::size_t kMostTextBytes = std::size_t{2} << 20U;
constexpr std::chrono::milliseconds kLongestGathering(1'000);
constexpr std::int64_t kRowsAtOnce = 256;

std::size_t textBytes(const LogRow& row) {
  auto bytes = row.message().size();
  for (const auto& slot : row.slots()) bytes += slot.value_or(std::string_view()).size();
  return bytes;
}

// Whether the record is still the one that was sent. Only what the table keeps is compared.
bool isSame(const FetchedRow& local, const Record& shipped) {
  const auto& row = local.row;
  const auto hasContext = [](const LogRow& r) { return r.ctx() && !r.ctx()->empty(); };
  bool same = microsecondsOf(row) == shipped.microseconds && row.level() == shipped.row.level() &&
              row.message() == shipped.row.message() &&
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

runeflow::WordTokenizer makeTokenizer() {
  auto tokenizer = runeflow::WordTokenizer::create();
  if (!tokenizer) host::fail("this SQLite has no FTS5, whose words the fleet needs");
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
      "SELECT block, block_end, block_rows, {} {} AND seq = {} LIMIT 1 FORMAT RowBinary",
      recordColumns(), whereGeneration(generation), sqlNumber(seq)));
  RowBinaryReader row(found);
  const auto first = row.int64();
  const auto last = row.int64();
  const auto rows = row.uint32();
  const auto shipped = readRecord(row);
  if (reader.isShort() || row.isShort()) {
    host::fail("{} holds no table of a fleet; make one with runeflow ship --create",
               engine_.address().text());
  }
  const auto local = recordAt(store_, seq);
  const auto largest = store_.maxSeq();
  host::failIfIncomplete(store_, path_);
  if (largest < seq ||
      (local && (shipped.kind != store_.descriptor().id() || !isSame(*local, shipped)))) {
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
  newest_ = local;
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
    const auto records = gather();
    if (!records.empty()) {
      const auto block = std::make_shared<InsertBlock>(
          makeBlock({capture_, generation_, store_.descriptor()}, records, tokenizer_));
      newest_ = records.back();
      next_ = newest_->seq + 1;
      finishSending();
      sending_ = std::async(std::launch::async, [this, block] {
        send(*block);
        return Sent{block->generation, block->count};
      });
      if (next_ <= report_.last) continue;
    }
    finishSending();
    if (!follows) return;
    if (hooks_.wait(milliseconds)) throw Interrupted();
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

// Whether the local database was cleared, or replaced by another, since the newest record was read.
bool Shipper::isNewGeneration() {
  return newest_ && report_.last > 0 && (report_.last < newest_->seq || !isStored(*newest_));
}

// Whether the record is still in the database, or was deleted by the size cap.
bool Shipper::isStored(const FetchedRow& record) {
  const auto now = recordAt(store_, record.seq);
  return now ? *now == record : store_.minSeq() > record.seq;
}

// Reads the records of the next block. Between two reads the database may be cleared; a snapshot
// would prevent that, but a store without a write-ahead log cannot notice in one that a capture has
// begun.
std::vector<FetchedRow> Shipper::gather() {
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
    auto records = readBlock();
    host::failIfIncomplete(store_, path_);
    if (records.empty() || (isStored(records.front()) && isStored(records.back()))) {
      blockEnd_.reset();
      return records;
    }
  }
}

std::vector<FetchedRow> Shipper::readBlock() {
  std::vector<FetchedRow> records;
  std::size_t bytes = 0;
  const auto end = std::chrono::steady_clock::now() + kLongestGathering;
  const auto isFull = [&] {
    return records.size() >= kMostRows ||
           (!blockEnd_ && (bytes >= kMostTextBytes || std::chrono::steady_clock::now() >= end));
  };
  const auto last = std::min(blockEnd_.value_or(report_.last), report_.last);
  for (auto seq = next_; seq <= last && !isFull(); seq += kRowsAtOnce) {
    auto rows = store_.fetchRange(seq, std::min(seq + kRowsAtOnce - 1, last));
    for (auto& row : rows) {
      bytes += textBytes(row.row);
      records.push_back(std::move(row));
    }
  }
  return records;
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
