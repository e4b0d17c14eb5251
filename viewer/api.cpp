// SPDX-License-Identifier: MIT
#include "api.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <exception>

#include "host/failure.h"
#include "page_files.h"
#include "runeflow/query/query_parser.h"

namespace viewer {

using runeflow::Bind;
using runeflow::EventStore;
using runeflow::FieldOp;
using runeflow::QueryNode;
using runeflow::StoreColumn;
using runeflow::StoreFault;

namespace {

constexpr std::string_view kApi = "api/v1/";
constexpr std::size_t kMostQueryBytes = 8'192;
constexpr std::size_t kMostSeqs = 500;

std::optional<std::int64_t> parsed(std::string_view text) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  return result.ec == std::errc() && result.ptr == end ? std::optional(number) : std::nullopt;
}

// Browsers write every answer with an error status on the console. The page asks with the parameter
// quiet and reads the member status instead.
HttpAnswer errorAnswer(const Refusal& refusal, const HttpRequest& request) {
  Json object = {{"error", refusal.sentence}, {"status", refusal.status}};
  object.update(refusal.more);
  return jsonAnswer(object, request.parameter("quiet") ? 200 : refusal.status);
}

bool isDigits(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

// Compares a path with a route's name, in which # stands for digits.
bool fits(std::string_view path, std::string_view name) {
  for (;;) {
    const auto pathEnd = path.find('/');
    const auto nameEnd = name.find('/');
    const auto part = path.substr(0, pathEnd);
    const auto wanted = name.substr(0, nameEnd);
    if (wanted == "#" ? !isDigits(part) : part != wanted) return false;
    if (pathEnd == std::string_view::npos || nameEnd == std::string_view::npos) {
      return pathEnd == nameEnd;
    }
    path.remove_prefix(pathEnd + 1);
    name.remove_prefix(nameEnd + 1);
  }
}

// The blocks that a filtered list shows must not wait for counts of everything.
bool isShortRange(const HttpRequest& request) {
  constexpr std::int64_t kShort = 20'000;  // records
  const auto first = parsed(request.parameter("first").value_or(""));
  const auto last = parsed(request.parameter("last").value_or(""));
  return first && last && *first >= 0 && *last >= 0 && *last - *first <= kShort;
}

std::string_view typeOf(std::string_view file) {
  constexpr std::pair<std::string_view, std::string_view> kTypes[] = {
      {".html", "text/html; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".json", "application/json"}};
  const auto* found =
      std::ranges::find_if(kTypes, [file](const auto& type) { return file.ends_with(type.first); });
  return found == std::end(kTypes) ? "application/octet-stream" : found->second;
}

}  // namespace

HttpAnswer jsonAnswer(const Json& value, unsigned int status) {
  return {.status = status,
          .type = "application/json",
          .body = value.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

EventStore& Call::store() const {
  if (!state_.kind) throw Refusal(409, "no database is open; open one or start a capture");
  if (!store_) {
    throw Refusal(
        500, state_.error.empty() ? fmt::format("cannot open {}", state_.name()) : state_.error);
  }
  if (has("g") && number("g", 0, INT64_MAX) != state_.generation) {
    throw Refusal(409, "the database was cleared or another one was opened",
                  {{"generation", state_.generation}});
  }
  return *store_;
}

bool Call::has(std::string_view name) const {
  return request_.parameter(name).has_value();
}

std::string Call::text(std::string_view name) const {
  return request_.parameter(name).value_or("");
}

std::int64_t Call::number(std::string_view name, std::int64_t least, std::int64_t most,
                          std::optional<std::int64_t> fallback) const {
  const auto given = request_.parameter(name);
  if (!given && fallback) return *fallback;
  const auto number = parsed(given.value_or(""));
  if (!number || *number < least || *number > most) {
    throw Refusal(400, fmt::format("the parameter {} must be a whole number from {} to {}", name,
                                   least, most));
  }
  return *number;
}

std::vector<std::int64_t> Call::seqs() const {
  std::vector<std::int64_t> seqs;
  const auto list = text("seqs");
  std::string_view rest = list;
  while (!rest.empty()) {
    const auto end = std::min(rest.find(','), rest.size());
    const auto seq = parsed(rest.substr(0, end));
    if (!seq || seqs.size() == kMostSeqs) {
      throw Refusal(400, fmt::format("the parameter seqs must be at most {} whole numbers, "
                                     "separated by commas",
                                     kMostSeqs));
    }
    seqs.push_back(*seq);
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return seqs;
}

Call::Question Call::question() const {
  const auto typed = text("q");
  if (typed.size() > kMostQueryBytes) {
    throw Refusal(400,
                  fmt::format("the query is longer than {} bytes; shorten it", kMostQueryBytes));
  }
  Question question{{}, {}, isOn("case"), has("from") || has("until")};
  question.typed = runeflow::QueryParser::parse(typed, store().descriptor(), question.matchCase);
  std::vector<QueryNode> conditions;
  if (!question.typed.isEmpty()) conditions.push_back(question.typed.root);
  const auto addTime = [&](FieldOp op, std::int64_t microseconds) {
    conditions.push_back(
        QueryNode::field({StoreColumn::timestamp(), op, Bind::int_(microseconds)}));
  };
  if (has("from")) addTime(FieldOp::greaterOrEqual, number("from", INT64_MIN, INT64_MAX));
  if (has("until")) addTime(FieldOp::lessOrEqual, number("until", INT64_MIN + 1, INT64_MAX) - 1);
  question.query = conditions.empty()       ? question.typed
                   : conditions.size() == 1 ? runeflow::LogQuery{conditions.front()}
                                            : runeflow::LogQuery{QueryNode::and_(conditions)};
  return question;
}

Json Call::body() const {
  auto body = Json::parse(request_.body, nullptr, false);
  if (!body.is_object()) throw Refusal(400, "the body must be a JSON object");
  return body;
}

void Call::requireComplete() const {
  const auto error = store().takeError();
  if (cancellation_->load()) {
    throw Refusal(409, "a newer question has taken its place", {{"cancelled", true}});
  }
  if (!error) return;
  if (error->fault != StoreFault::refused) {
    throw Refusal(500, fmt::format("{} was not read completely: {}", state_.name(), error->text));
  }
  if (!state_.hasFullText) {
    throw Refusal(400, fmt::format("{} has no full-text index; query it without words, or capture "
                                   "the log again",
                                   state_.name()));
  }
  throw Refusal(400,
                "the query has more conditions or deeper groups than SQLite takes; shorten it");
}

HttpAnswer Call::answer(const Json& members) const {
  requireComplete();
  Json object = {{"generation", state_.generation}};
  object.update(members);
  return jsonAnswer(object);
}

Api::Api(std::string root, Database& database)
    : root_(std::move(root)), database_(database), workers_(HttpServer::workerCount()) {
  add(recordRoutes());
  add(countRoutes());
  add({{"GET", "events", Lane::quick, [this](const Call& call) { return events(call); }}});
}

void Api::add(std::vector<Route> routes) {
  std::ranges::move(routes, std::back_inserter(routes_));
}

const Route* Api::routeOf(const HttpRequest& request) const {
  const auto path = std::string_view(request.path).substr(root_.size());
  if (!path.starts_with(kApi)) return nullptr;
  const auto method = request.method == "HEAD" ? "GET" : std::string_view(request.method);
  const auto found = std::ranges::find_if(routes_, [&](const Route& route) {
    return route.method == method && fits(path.substr(kApi.size()), route.name);
  });
  return found == routes_.end() ? nullptr : &*found;
}

Lane Api::laneOf(const HttpRequest& request) const {
  const auto* route = routeOf(request);
  if (!route) return Lane::quick;
  // Without seqs, a query has to find the records first, which may take long.
  const bool isByQuery = !request.parameter("seqs") && !request.parameter("first");
  if (route->findsRecords && isByQuery) return Lane::matches;
  if (route->lane == Lane::slow && isShortRange(request)) return Lane::matches;
  return route->lane;
}

HttpAnswer Api::answer(const HttpRequest& request, std::size_t worker) {
  try {
    if (const auto* route = routeOf(request)) return call(*route, request, workers_[worker]);
    const auto path = std::string_view(request.path).substr(root_.size());
    if (path.starts_with("api/")) throw Refusal(404, "there is no such call");
    if (request.method == "POST") throw Refusal(405, "files are read with GET");
    return file(path);
  } catch (const Refusal& refusal) {
    return errorAnswer(refusal, request);
  } catch (const host::Failure& failure) {
    return errorAnswer({400, failure.what()}, request);
  } catch (const std::exception& unexpected) {
    return errorAnswer({500, unexpected.what()}, request);
  }
}

HttpAnswer Api::call(const Route& route, const HttpRequest& request, Worker& worker) {
  const auto page = request.parameter("page").value_or("");
  const auto ask = request.parameter("ask").value_or("");
  const auto cancellation = asks_.begin(ask.empty() ? ask : page + '/' + ask);
  const auto state = database_.state();
  if (worker.opened != state.opened) {
    worker.store.reset();
    worker.opened = state.opened;
  }
  if (state.kind && !worker.store && route.lane != Lane::outside) {
    worker.store = EventStore::openForReading(state.path, state.kind->descriptor());
  }
  if (!worker.store) return route.handler(Call(request, state, nullptr, cancellation));
  static_cast<void>(worker.store->takeError());
  worker.store->setCancellation(cancellation);
  return route.handler(Call(request, state, &*worker.store, cancellation));
}

HttpAnswer Api::file(std::string_view path) const {
  constexpr std::string_view kFolder = "page/";
  const bool isIndex = path.empty();
  if (!isIndex && !path.starts_with(kFolder)) throw Refusal(404, "there is no such page");
  const auto name = isIndex ? "index.html" : path.substr(kFolder.size());
  const auto files = pageFiles();
  const auto found = std::ranges::find(files, name, &PageFile::name);
  if (found == files.end()) throw Refusal(404, "there is no such page");
  return {.type = std::string(typeOf(name)), .body = std::string(found->content)};
}

HttpAnswer Api::events(const Call& call) {
  const auto page = call.text("page");
  auto feed = std::make_shared<EventFeed>();
  const std::lock_guard lock(feedsMutex_);
  std::erase_if(feeds_, [](const auto& known) { return known.second->isClosed(); });
  if (isEnding_ || (feeds_.size() >= kMostFeeds && !feeds_.contains(page))) {
    throw Refusal(503, "too many pages are open; close some");
  }
  if (auto& known = feeds_[page]) known->close();
  feeds_[page] = feed;
  for (const auto& [name, data] : lastEvents_) feed->send(name, data);
  return {.type = "text/event-stream", .feed = feed};
}

void Api::broadcast(const std::string& name, const Json& data) {
  auto text = data.dump(-1, ' ', false, Json::error_handler_t::replace);
  const std::lock_guard lock(feedsMutex_);
  for (const auto& [page, feed] : feeds_) feed->send(name, text);
  lastEvents_[name] = std::move(text);
}

void Api::beat() {
  const std::lock_guard lock(feedsMutex_);
  for (const auto& [page, feed] : feeds_) feed->beat();
}

void Api::end() {
  asks_.cancelAll();
  const std::lock_guard lock(feedsMutex_);
  isEnding_ = true;
  for (const auto& [page, feed] : feeds_) feed->close();
}

}  // namespace viewer
