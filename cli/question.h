// SPDX-License-Identifier: MIT

// What the options of a query ask for, without the form of the answer.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "commands.h"
#include "host/message_filter.h"
#include "host/message_marks.h"
#include "record_printer.h"
#include "runeflow/store/event_store.h"

namespace cli {

struct Question {
  runeflow::LogQuery typed;                   // the words of the command line
  runeflow::LogQuery query;                   // with the conditions of the options
  runeflow::TimeSpan times;                   // of --since and --until
  std::optional<host::MessageFilter> filter;  // of --regex
};

// Returns the time of the newest record in microseconds, or that of now if there is none.
std::int64_t endOf(runeflow::EventStore& store);

// Reads the conditions for the database of that store. `end` is the time that "end" means in
// --since and --until. Fails if the conditions are not valid or SQLite refuses the query; `path`
// names the database then.
Question questionOf(const QueryConditions& options, std::int64_t end, runeflow::EventStore& store,
                    const std::string& path);

// Returns the pieces of messages to highlight.
host::MessageMarks marksOf(const Question& question, const QueryConditions& options);

// Returns the form that the options and standard output ask for.
RecordFormat formatOf(const QueryOptions& options);

// Calls `print` with the stream for the records: standard output, or the pager if the options want
// it and there is a terminal. Returns what it returns, and 1 if the user quit the pager early.
std::int64_t printRecordsTo(const QueryOptions& options,
                            const std::function<std::int64_t(std::FILE*)>& print);

}  // namespace cli
