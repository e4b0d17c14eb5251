// SPDX-License-Identifier: MIT
#include "host/stored_before.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string_view>
#include <vector>

#include "host/deadline.h"
#include "host/record_key.h"
#include "runeflow/transports/file_transport.h"

namespace host {

using runeflow::EventStore;
using runeflow::LogRow;
using runeflow::QueryNode;

namespace {

// A search that takes longer, as it may in a database of many millions of records, finds nothing.
constexpr std::chrono::milliseconds kPatience{1'000};
constexpr std::size_t kComparedRecords = 100;
constexpr std::size_t kPieceSize = 65'536;
constexpr std::size_t kSampleSize = std::size_t{1} << 20;  // bytes of the log at either end

using Sample = std::vector<std::uint8_t>;

// The first and the last bytes of a log, unpacked.
struct Ends {
  Sample first;
  Sample last;
  bool isWhole = true;  // `last` holds the whole log
};

void keepLast(Ends& ends, Bytes bytes) {
  const auto room = kSampleSize - std::min(kSampleSize, ends.first.size());
  ends.first.insert(ends.first.end(), bytes.begin(),
                    bytes.begin() + static_cast<std::ptrdiff_t>(std::min(room, bytes.size())));
  ends.last.insert(ends.last.end(), bytes.begin(), bytes.end());
  if (ends.last.size() <= 2 * kSampleSize) return;
  ends.last.erase(ends.last.begin(), ends.last.end() - kSampleSize);
  ends.isWhole = false;
}

// Reads both ends of the file. Returns false if it cannot be read.
bool readEnds(const Stream& stream, Ends& ends) {
  const runeflow::FileDescriptor file(runeflow::FileTransport::openForReading(stream.path));
  if (!file) return false;
  Unpacker unpacker;
  const auto keep = [&ends](Bytes bytes) {
    keepLast(ends, bytes);
    return true;
  };
  Sample piece(kPieceSize);
  for (std::int64_t at = 0;;) {
    const auto size = ::pread(file.get(), piece.data(), piece.size(), at);
    if (size < 0) return false;
    if (size == 0) return unpacker.end(keep);
    if (!unpacker.take(std::span(piece).first(static_cast<std::size_t>(size)), keep)) return false;
    at += size;
    // What lies between the ends of a file need not be read unless it is packed.
    const auto end = stream.size ? *stream.size - static_cast<std::int64_t>(kSampleSize) : 0;
    if (ends.first.size() < kSampleSize || end <= at) continue;
    at = end;
    ends.last.clear();
    ends.isWhole = false;
  }
}

std::vector<LogRow> decoded(const LogKind& kind, Bytes bytes) {
  const auto decoder = kind.makeDecoder(std::chrono::system_clock::now);
  auto rows = decoder->consume(bytes);
  // The last record of a text may lack its end.
  const auto end = kind.recordEnd;
  auto last = decoder->consume({reinterpret_cast<const std::uint8_t*>(end.data()), end.size()});
  std::ranges::move(last, std::back_inserter(rows));
  return rows;
}

// Returns the last bytes from the beginning of a record on.
Bytes fromRecord(const Ends& ends, const LogKind& kind) {
  if (ends.isWhole) return ends.last;
  constexpr std::string_view kStorageHeader("DLT\x01", 4);
  const std::string_view text(reinterpret_cast<const char*>(ends.last.data()), ends.last.size());
  const auto mark = kind.recordEnd.empty() ? kStorageHeader : kind.recordEnd;
  const auto at = text.find(mark);
  if (at == std::string_view::npos) return {};
  return Bytes(ends.last).subspan(kind.recordEnd.empty() ? at : at + mark.size());
}

// Returns the query for a record by its fields, its time and its message. Only a record without a
// time is looked for by the words of its message: the full-text index reads all matches of each
// word, which takes seconds in a large database.
runeflow::LogQuery lookFor(const LogRow& row) {
  constexpr std::size_t kMostBytes = 500;  // of a message; its first words are rare enough
  std::vector<QueryNode> conditions;
  for (std::int64_t i = 0; i < static_cast<std::int64_t>(LogRow::slotCount); ++i) {
    if (const auto text = row.slot(i); text && !text->empty()) {
      conditions.push_back(
          QueryNode::field({runeflow::StoreColumn::slot(i), runeflow::FieldOp::equals,
                            runeflow::Bind::text(std::string(*text))}));
    }
  }
  if (const auto time = runeflow::microsecondsSinceEpoch(row.timestamp()); time && !isRawRow(row)) {
    conditions.push_back(
        QueryNode::field({runeflow::StoreColumn::timestamp(), runeflow::FieldOp::equals,
                          runeflow::Bind::int_(*time)}));
    conditions.push_back(
        QueryNode::field({runeflow::StoreColumn::message(), runeflow::FieldOp::equals,
                          runeflow::Bind::text(std::string(row.message()))}));
    return {QueryNode::and_(std::move(conditions))};
  }
  auto words = row.message();
  if (words.size() > kMostBytes) {
    const auto blank = words.rfind(' ', kMostBytes);
    words = words.substr(0, blank == std::string_view::npos ? 0 : blank);
  }
  const auto isLetter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  };
  if (std::ranges::any_of(words, isLetter)) {
    conditions.push_back(QueryNode::fullText({std::string(words)}));
  }
  return {QueryNode::and_(std::move(conditions))};
}

// Returns the largest seq, up to `latest`, from which on the rows are stored one after the other.
std::optional<std::int64_t> placeOf(EventStore& store, std::span<const LogRow> rows,
                                    std::int64_t latest) {
  constexpr std::int64_t kMostPlaces = 20;
  // The fewest records share the longest message.
  const auto longest = std::ranges::max_element(
      rows, {}, [](const LogRow& row) { return isRawRow(row) ? 0 : row.message().size() + 1; });
  const auto offset = longest - rows.begin();
  const auto seqs = store.newestMatching(lookFor(*longest), latest + offset + 1, kMostPlaces);
  for (const auto seq : std::vector(seqs.rbegin(), seqs.rend())) {
    const auto first = seq - offset;
    const auto stored = store.fetchRange(first, first + std::ssize(rows) - 1);
    const bool isSame = std::ranges::equal(
        stored, rows, {}, [](const auto& found) { return recordKey(found.row); }, recordKey);
    if (isSame) return first;
  }
  return std::nullopt;
}

}  // namespace

bool isStoredBefore(EventStore& store, const Stream& stream) {
  if (stream.path.empty() || !stream.kind || store.maxSeq() == 0) return false;
  Ends ends;
  if (!readEnds(stream, ends)) return false;
  const auto& kind = *stream.kind;
  auto first = decoded(kind, ends.first);
  auto last = decoded(kind, fromRecord(ends, kind));
  if (first.size() > kComparedRecords) {
    first.erase(first.begin() + kComparedRecords, first.end());
  }
  if (last.size() > kComparedRecords) last.erase(last.begin(), last.end() - kComparedRecords);
  if (first.empty() || last.empty()) return false;
  const Deadline deadline(store, kPatience);
  const auto end = placeOf(store, last, store.maxSeq());
  if (!end) return false;
  // The records of a short file are both its first and its last.
  return placeOf(store, first, *end).has_value();
}

}  // namespace host
