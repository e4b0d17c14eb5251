// SPDX-License-Identifier: MIT

// The calls that return records.
#include <fmt/format.h>

#include <algorithm>

#include "api.h"
#include "host/record_text.h"
#include "host/terminal_text.h"

namespace viewer {

using runeflow::EventStore;
using runeflow::RecordPreview;
using runeflow::WordMarks;

namespace {

constexpr std::int64_t kMostRecords = 500;
constexpr std::int64_t kListedCharacters = 1'000;
constexpr std::int64_t kDetailedCharacters = 20'000;
constexpr std::int64_t kMostPieceCharacters = 200'000;
constexpr std::int64_t kMostCopiedCharacters = 4'000'000;
constexpr std::int64_t kLatest = INT64_MAX;

// The parameters first and last. Refuses a range that is too long.
std::pair<std::int64_t, std::int64_t> rangeOf(const Call& call) {
  const auto first = call.number("first", 0, kLatest);
  const auto last = call.number("last", 0, kLatest);
  if (last - first >= kMostRecords) {
    throw Refusal(400, fmt::format("at most {} records at once", kMostRecords));
  }
  return {first, last};
}

std::vector<RecordPreview> chosen(const Call& call, std::int64_t characters) {
  auto& store = call.store();
  const auto fetched = [&](std::span<const std::int64_t> seqs) {
    return store.fetchPreviews(seqs, characters);
  };
  if (call.has("seqs")) return fetched(call.seqs());
  if (call.has("first")) {
    const auto [first, last] = rangeOf(call);
    return store.fetchPreviewRange(first, last, characters);
  }
  const auto limit = call.number("limit", 1, kMostRecords, 200);
  const auto query = call.question().query;
  if (call.has("after")) {
    return fetched(store.oldestMatching(query, call.number("after", 0, kLatest), limit));
  }
  const auto below = call.number("before", 0, kLatest, kLatest);
  return fetched(store.newestMatching(query, below, limit));
}

HttpAnswer records(const Call& call) {
  const auto question = call.question();
  const WordMarks marks(question.typed, question.matchCase);
  auto list = Json::array();
  for (const auto& record : chosen(call, kListedCharacters)) {
    list.push_back(listedRecord(record, call.store().descriptor(), marks));
  }
  return call.answer({{"records", std::move(list)}});
}

// The number in the path, behind api/v1/NAME/.
std::int64_t seqOf(const Call& call) {
  const std::string_view path = call.request().path;
  constexpr std::string_view kBefore = "/record/";
  const auto digits = path.substr(path.find(kBefore) + kBefore.size());
  std::int64_t seq = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') break;
    constexpr std::int64_t kMostBeforeDigit = INT64_MAX / 10 - 1;
    if (seq > kMostBeforeDigit) return 0;
    seq = seq * 10 + (c - '0');
  }
  return seq;
}

[[noreturn]] void refuseMissing(std::int64_t seq) {
  throw Refusal(404, fmt::format("there is no record {} any more", seq));
}

HttpAnswer record(const Call& call) {
  const auto seq = seqOf(call);
  const auto question = call.question();
  auto& store = call.store();
  const auto found = store.fetchPreviewRange(seq, seq, kDetailedCharacters);
  call.requireComplete();
  if (found.empty()) refuseMissing(seq);
  const auto& record = found.front();
  auto object =
      detailedRecord(record, store.descriptor(), WordMarks(question.typed, question.matchCase));
  // A longer line is read with `lines`.
  const bool isWhole = record.messageCharacters <= kDetailedCharacters;
  object["line"] =
      isWhole ? Json(host::plainLine({record.seq, record.row}, store.descriptor())) : Json(nullptr);
  return call.answer(object);
}

HttpAnswer recordText(const Call& call) {
  const auto seq = seqOf(call);
  const auto from = call.number("from", 0, kLatest, 0);
  const auto characters = call.number("characters", 1, kMostPieceCharacters, kMostPieceCharacters);
  const auto length = call.store().fetchPreviewRange(seq, seq, 0);
  const auto piece = call.store().messagePiece(seq, from, characters);
  call.requireComplete();
  if (!piece || length.empty()) refuseMissing(seq);
  return call.answer({{"from", from},
                      {"length", length.front().messageCharacters},
                      {"text", safeText(*piece, {}, Lines::several).text}});
}

HttpAnswer lines(const Call& call) {
  auto& store = call.store();
  std::vector<std::int64_t> seqs;
  std::int64_t characters = 0;
  for (const auto& preview : chosen(call, 0)) {
    seqs.push_back(preview.seq);
    characters += preview.messageCharacters;
  }
  if (characters > kMostCopiedCharacters && seqs.size() > 1) {
    throw Refusal(413, "these messages are too long to copy at once; choose fewer records");
  }
  std::string text;
  for (const auto& fetched : store.fetch(seqs)) {
    text += host::plainLine(fetched, store.descriptor()) + '\n';
  }
  return call.answer({{"text", std::move(text)}});
}

HttpAnswer position(const Call& call) {
  const auto time = call.number("time", INT64_MIN, INT64_MAX);
  const auto seq = call.store().firstSeqAtOrAfter(time);
  return call.answer({{"seq", seq}});
}

}  // namespace

std::vector<Route> recordRoutes() {
  return {{"GET", "records", Lane::quick, records, true},
          {"GET", "record/#", Lane::quick, record},
          {"GET", "record/#/text", Lane::quick, recordText},
          {"GET", "lines", Lane::quick, lines, true},
          {"GET", "position", Lane::quick, position}};
}

}  // namespace viewer
