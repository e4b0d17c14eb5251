// SPDX-License-Identifier: MIT

// The HTTP interface of the page: JSON below api/v1/, and the page's files. docs/view.md describes
// it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "asks.h"
#include "database.h"
#include "event_feed.h"
#include "http_server.h"
#include "records_json.h"

namespace viewer {

// A request that is answered with this status and {"error": sentence}.
struct Refusal {
  unsigned int status;
  std::string sentence;
  Json more = Json::object();  // further members
};

// One request: its parameters, checked, and the database that it asks.
class Call {
 public:
  Call(const HttpRequest& request, DatabaseState state, runeflow::EventStore* store,
       Cancellation cancellation)
      : request_(request),
        state_(std::move(state)),
        store_(store),
        cancellation_(std::move(cancellation)) {}

  const HttpRequest& request() const { return request_; }
  const DatabaseState& state() const { return state_; }
  const Cancellation& cancellation() const { return cancellation_; }

  // Returns the store. Refuses if no database is open, or if the page's generation is over.
  runeflow::EventStore& store() const;
  bool hasDatabase() const { return store_ != nullptr; }

  // The parameters. A number must lie in the range; a missing one is the fallback, or refused if
  // there is none.
  std::string text(std::string_view name) const;
  std::int64_t number(std::string_view name, std::int64_t least, std::int64_t most,
                      std::optional<std::int64_t> fallback = std::nullopt) const;
  bool has(std::string_view name) const;
  bool isOn(std::string_view name) const { return text(name) == "1"; }
  std::vector<std::int64_t> seqs() const;  // of the parameter `seqs`

  // The query of the parameters q, case, from and until.
  struct Question {
    runeflow::LogQuery query;  // with the span of time
    runeflow::LogQuery typed;  // without
    bool matchCase;
    bool hasSpan;
  };
  Question question() const;

  // The body of a POST, an object.
  Json body() const;

  // Refuses if a read was cut short since the store was handed out.
  void requireComplete() const;

  // An answer with the generation of the database in front.
  HttpAnswer answer(const Json& members) const;

 private:
  const HttpRequest& request_;
  DatabaseState state_;
  runeflow::EventStore* store_;
  Cancellation cancellation_;
};

// What the page knows of the database without asking.
Json stateJson(const DatabaseState& state);

// The same with what never changes, and the captures.
Json infoJson(const DatabaseState& state, Json captures);

HttpAnswer jsonAnswer(const Json& value, unsigned int status = 200);

// The handlers, by subject.
using Handler = std::function<HttpAnswer(const Call&)>;
struct Route {
  std::string_view method;
  std::string_view name;  // below api/v1/; a part of the path that is a number is written as #
  Lane lane;
  Handler handler;
  bool findsRecords = false;  // takes the parameters seqs, first and last, or a query
};
std::vector<Route> recordRoutes();
std::vector<Route> countRoutes();

class Api {
 public:
  // `root` is the prefix of all paths, with a slash at its end.
  Api(std::string root, Database& database);

  void add(std::vector<Route> routes);

  Lane laneOf(const HttpRequest& request) const;
  HttpAnswer answer(const HttpRequest& request, std::size_t worker);

  // Sends an event to all pages, and remembers it for those that come later.
  void broadcast(const std::string& name, const Json& data);
  void beat();

  // Ends questions and event streams.
  void end();

 private:
  struct Worker {
    std::optional<runeflow::EventStore> store;
    std::int64_t opened = 0;
  };

  const Route* routeOf(const HttpRequest& request) const;
  HttpAnswer call(const Route& route, const HttpRequest& request, Worker& worker);
  HttpAnswer file(std::string_view path) const;
  HttpAnswer events(const Call& call);

  std::string root_;
  Database& database_;
  std::vector<Route> routes_;
  std::vector<Worker> workers_;  // each used by one thread
  Asks asks_;

  static constexpr std::size_t kMostFeeds = 32;
  std::mutex feedsMutex_;
  std::map<std::string, std::shared_ptr<EventFeed>> feeds_;  // by page
  std::map<std::string, std::string> lastEvents_;
  bool isEnding_ = false;
};

}  // namespace viewer
