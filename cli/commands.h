// SPDX-License-Identifier: MIT

// The subcommands of `runeflow`: the options of each, and the function that runs it. Each function
// returns the exit code: 0 done, 1 nothing matched, 2 input or records were lost. It throws
// host::Failure for everything else.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/stream.h"

namespace cli {

struct CaptureOptions {
  std::vector<std::string> files;
  std::string database;
  std::string format;  // if empty, the kind is recognised by the first bytes of the files
  std::optional<std::int64_t> maxBytes;
  std::string dltTarget;
  std::string adbTarget;
  std::string serial;
  std::string command = host::kLogcatCommand;
  bool isAdb = false;
  bool reconnects = false;
  bool again = false;  // also files that were captured before

  bool isLive() const { return isAdb || !dltTarget.empty(); }
};

// What records must fulfil, besides the kind that their database has.
struct QueryConditions {
  std::string text;
  std::string since;  // empty if not given, here and below
  std::string until;
  std::optional<std::string> contained;
  std::optional<std::string> expression;
  bool matchCase = false;
};

struct QueryOptions : QueryConditions {
  std::string database;
  std::vector<std::string> others;  // further databases
  std::string source;  // if empty, here and below, the kind is recognised by the indexes
  std::optional<std::int64_t> after;
  std::optional<std::int64_t> first;
  std::optional<std::int64_t> last;
  std::optional<std::int64_t> around;  // records of context on both sides of a match
  std::optional<std::int64_t> before;  // on one side, instead of `around`
  std::optional<std::int64_t> behind;
  std::optional<std::int64_t> bars;
  bool isReversed = false;
  bool showsTimeline = false;
  bool counts = false;
  bool follows = false;
  bool isJson = false;
  bool isCsv = false;
  bool showsPlan = false;
  bool usesPager = false;
  bool showsSeq = false;
};

struct ExportOptions : QueryConditions {
  std::string database;
  std::string target;  // the new database
  std::string source;
};

struct ValuesOptions {
  std::string database;
  std::vector<std::string> fields;
  std::string matching;
  std::string prefix;
  std::string source;
  std::int32_t limit = 20;
  bool isJson = false;
};

struct InfoOptions {
  std::string database;
  std::string source;
  bool isJson = false;
};

struct ClearOptions {
  std::string database;
  std::string source;
  bool isSure = false;
};

struct CheckOptions {
  std::string database;
  bool repairs = false;
};

struct ShipOptions {
  std::string database;  // if empty, only the table is created
  std::string table;     // its address
  std::string capture;   // if empty, made of the host's and the database's name
  std::string cluster;
  std::string source;
  int everyMilliseconds = 1'000;
  bool creates = false;
  bool follows = false;
};

struct SourcesOptions {
  bool isJson = false;
};

struct ViewCommandOptions {
  std::string path;  // a database or a log; empty: begin with the sources
  std::string source;
  std::optional<std::uint16_t> port;
  bool staysClosed = false;  // opens no browser
};

int capture(const CaptureOptions& options);
int query(const QueryOptions& options);
int queryTogether(const QueryOptions& options);  // with further databases
int exportRecords(const ExportOptions& options);
int values(const ValuesOptions& options);
int info(const InfoOptions& options);
int clear(const ClearOptions& options);
int check(const CheckOptions& options);
int ship(const ShipOptions& options);
int sources(const SourcesOptions& options);
int view(const ViewCommandOptions& options);

}  // namespace cli
