// SPDX-License-Identifier: MIT

// The calls that describe the database and count its records.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <list>
#include <memory>
#include <mutex>

#include "api.h"
#include "host/query_words.h"
#include "host/record_text.h"
#include "host/terminal_text.h"
#include "runeflow/query/query_parser.h"
#include "timeline_cache.h"

namespace viewer {

using runeflow::LogQuery;
using runeflow::StoreColumn;
using runeflow::TimeSpan;

namespace {

constexpr std::int64_t kLatest = INT64_MAX;
constexpr std::int64_t kMostBars = 1'000;
constexpr std::int64_t kMostBlocks = 100'000;
constexpr std::int64_t kMostValues = 200;

Json columnsOf(const runeflow::SourceDescriptor& descriptor) {
  auto columns = Json::array();
  const auto& hints = descriptor.display();
  for (const auto& field : descriptor.fields()) {
    const bool hasBadge = hints.badge && hints.badge->column() == field.column();
    const bool hasHero = hints.hero && hints.hero->column() == field.column();
    columns.push_back({{"name", field.name()},
                       {"label", field.label()},
                       {"column", field.column().sql()},
                       {"indexed", field.indexed()},
                       {"queryable", field.queryable()},
                       {"inTable", field.inTable()},
                       {"badge", hasBadge ? Json(hints.badge->glyph()) : Json(nullptr)},
                       {"hero", hasHero ? Json(hints.hero->value()) : Json(nullptr)}});
  }
  return columns;
}

}  // namespace

Json infoJson(const DatabaseState& state, Json captures) {
  auto object = stateJson(state);
  object["zone"] = host::localZone();
  object["version"] = RUNEFLOW_VERSION;
  auto levels = Json::array();
  for (std::int64_t raw = 0; const auto level = runeflow::levelFromRawValue(raw); ++raw) {
    levels.push_back(host::levelName(*level));
  }
  object["levels"] = std::move(levels);
  object["columns"] = state.kind ? columnsOf(state.kind->descriptor()) : Json::array();
  object["source"] = nullptr;
  if (state.kind) {
    const auto& descriptor = state.kind->descriptor();
    object["source"] = {{"id", descriptor.id()}, {"name", descriptor.displayName()}};
  }
  object["capturing"] = std::move(captures);
  return object;
}

namespace {

HttpAnswer query(const Call& call) {
  const auto question = call.question();
  auto& store = call.store();
  Json object = {{"reading", host::inWords(question.typed, store.descriptor())},
                 {"words", Json::array()},
                 {"error", nullptr}};
  for (const auto& word : runeflow::QueryParser::highlightTerms(question.typed.root)) {
    object["words"].push_back(host::terminalText(word));
  }
  const auto plan = store.matchingSeqsQueryPlan(question.query, 0);
  try {
    call.requireComplete();
  } catch (const Refusal& refusal) {
    if (refusal.status != 400) throw;
    object["error"] = refusal.sentence;
  }
  if (call.isOn("plan")) object["plan"] = plan;
  return call.answer(object);
}

HttpAnswer blocks(const Call& call) {
  const auto question = call.question();
  const auto& state = call.state();
  const auto first = call.number("first", 1, kLatest, std::max<std::int64_t>(state.firstSeq, 1));
  const auto last = call.number("last", 0, kLatest, state.lastSeq);
  const auto size = call.number("size", 1, kLatest, 1'000);
  if (last >= first && (last - first) / size >= kMostBlocks) {
    throw Refusal(400, fmt::format("at most {} blocks; choose a larger size", kMostBlocks));
  }
  std::int64_t total = 0;
  auto list = Json::array();
  for (const auto& block : call.store().countMatchingPerBlock(question.query, first, last, size)) {
    list.push_back({block.first, block.count});
    total += block.count;
  }
  return call.answer(
      {{"size", size}, {"blocks", std::move(list)}, {"total", total}, {"last", last}});
}

std::int64_t sumOf(const TimelineCache::Bars& bars) {
  std::int64_t sum = 0;
  for (const auto& bar : bars) {
    for (const auto count : bar) sum += count;
  }
  return sum;
}

// A named span is the axis as it is. The span of all records grows, and its axis with it.
Axis axisAsked(const Call& call) {
  const auto bars = static_cast<std::size_t>(call.number("bars", 2, kMostBars, 200));
  auto span = call.state().span.value_or(TimeSpan{0, 1});
  if (!call.has("from") && !call.has("until")) return axisOf(span, bars);
  span.from = call.number("from", INT64_MIN, kLatest, span.from);
  span.until = call.number("until", INT64_MIN, kLatest, span.until);
  if (span.until <= span.from) throw Refusal(400, "the span must end after it begins");
  return {span, bars};
}

HttpAnswer timeline(const Call& call, TimelineCache& cache) {
  const auto question = call.question();
  const auto axis = axisAsked(call);
  const auto counted = [&](const std::string& name, const LogQuery& query) {
    return cache.count(call.store(), call.state(), name, query, axis,
                       [&] { call.requireComplete(); });
  };
  const auto all = counted("", {});
  Json object = {{"from", axis.span.from}, {"until", axis.span.until}, {"bars", all},
                 {"matches", nullptr},     {"total", sumOf(all)},      {"matched", sumOf(all)}};
  if (!question.typed.isEmpty()) {
    const auto matches = counted(
        fmt::format("{}{}", question.matchCase ? "A" : "a", call.text("q")), question.typed);
    object["matches"] = matches;
    object["matched"] = sumOf(matches);
  }
  return call.answer(object);
}

// The facets of the latest questions, for as long as the records stay the same.
class FacetCache {
 public:
  std::optional<Json> find(const DatabaseState& state, const std::string& name) {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find_if(entries_, [&](const Entry& entry) {
      return entry.name == name && entry.generation == state.generation &&
             entry.firstSeq == state.firstSeq && entry.lastSeq == state.lastSeq;
    });
    return found == entries_.end() ? std::nullopt : std::optional(found->facets);
  }
  void keep(const DatabaseState& state, const std::string& name, const Json& facets) {
    const std::lock_guard lock(mutex_);
    entries_.push_front({name, state.generation, state.firstSeq, state.lastSeq, facets});
    if (entries_.size() > kMostEntries) entries_.pop_back();
  }

 private:
  struct Entry {
    std::string name;
    std::int64_t generation;
    std::int64_t firstSeq;
    std::int64_t lastSeq;
    Json facets;
  };
  static constexpr std::size_t kMostEntries = 16;

  std::mutex mutex_;
  std::list<Entry> entries_;  // the latest first
};

Json valuesJson(const std::vector<runeflow::ValueCount>& values) {
  auto list = Json::array();
  for (const auto& [value, count] : values) {
    // What a query needs is the value itself; what is shown is safe.
    list.push_back({{"value", value}, {"shown", host::terminalText(value)}, {"count", count}});
  }
  return list;
}

std::optional<LogQuery> orNothing(const LogQuery& query) {
  return query.isEmpty() ? std::nullopt : std::optional(query);
}

HttpAnswer facets(const Call& call, FacetCache& cache) {
  const auto query = orNothing(call.question().query);
  const auto limit = call.number("limit", 1, kMostValues, 8);
  auto& store = call.store();
  const auto name = fmt::format("{} {} {} {} {}", limit, call.isOn("case"), call.text("from"),
                                call.text("until"), call.text("q"));
  if (const auto known = cache.find(call.state(), name)) return call.answer(*known);
  std::array<std::int64_t, 6> levels{};
  auto fields = Json::array();
  for (const auto& [value, count] :
       store.distinctValuesWithCounts(StoreColumn::level(), query, std::nullopt, -1)) {
    const auto raw = static_cast<std::size_t>(value.front() - '0');
    if (value.size() == 1 && raw < levels.size()) levels[raw] = count;
  }
  for (const auto& field : store.descriptor().fields()) {
    if (!field.indexed() || field.column() == StoreColumn::level()) continue;
    const auto values = store.distinctValuesWithCounts(field.column(), query, std::nullopt, limit);
    call.requireComplete();
    fields.push_back(
        {{"name", field.name()}, {"label", field.label()}, {"values", valuesJson(values)}});
  }
  call.requireComplete();
  Json answer = {{"levels", levels}, {"fields", std::move(fields)}};
  cache.keep(call.state(), name, answer);
  return call.answer(answer);
}

HttpAnswer complete(const Call& call) {
  auto& store = call.store();
  const auto* field = store.descriptor().field(call.text("field"));
  if (!field) throw Refusal(400, "there is no such field");
  const auto limit = call.number("limit", 1, kMostValues, 20);
  const auto query = orNothing(call.question().query);
  const auto prefix = call.text("prefix");
  const auto values = store.distinctValuesWithCounts(
      field->column(), query, prefix.empty() ? std::nullopt : std::optional(prefix), limit);
  return call.answer({{"values", valuesJson(values)}});
}

}  // namespace

Json stateJson(const DatabaseState& state) {
  return {{"generation", state.generation},
          {"database", state.kind ? Json(host::terminalText(state.name())) : Json(nullptr)},
          {"error", state.error.empty() ? Json(nullptr) : Json(state.error)},
          {"firstSeq", state.firstSeq},
          {"lastSeq", state.lastSeq},
          {"count", state.count},
          {"span", state.span ? Json({{"from", state.span->from}, {"until", state.span->until}})
                              : Json(nullptr)},
          {"usedBytes", state.usedBytes},
          {"hasFullText", state.hasFullText}};
}

std::vector<Route> countRoutes() {
  auto timelines = std::make_shared<TimelineCache>();
  auto kept = std::make_shared<FacetCache>();
  return {{"GET", "query", Lane::quick, query},
          {"GET", "blocks", Lane::slow, blocks},
          {"GET", "timeline", Lane::slow,
           [timelines](const Call& call) { return timeline(call, *timelines); }},
          {"GET", "facets", Lane::slow, [kept](const Call& call) { return facets(call, *kept); }},
          {"GET", "complete", Lane::slow, complete}};
}

}  // namespace viewer
