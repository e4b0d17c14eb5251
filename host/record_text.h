// SPDX-License-Identifier: MIT

// Records as text, in the form that all hosts print: one line for programs, and its parts.
#pragma once

#include <string>
#include <string_view>

#include "runeflow/model/source_descriptor.h"
#include "runeflow/store/event_store.h"

namespace host {

// Returns "Trace", "Debug", "Info", "Warning", "Error" or "Fatal".
std::string_view levelName(runeflow::RuneflowLogLevel level);

// Returns ISO 8601 in UTC with microseconds: "2026-03-17T15:13:41.376000Z".
std::string utcTime(runeflow::Timestamp timestamp);

// Returns the local time of this machine, for people: "2026-03-17 16:13:41.376", with milliseconds
// or microseconds.
enum class TimeDigits { milliseconds, microseconds };
std::string localTime(runeflow::Timestamp timestamp, TimeDigits digits = TimeDigits::milliseconds);

// Returns the name of this machine's time zone and its present offset: "Europe/Berlin (UTC+1)".
std::string localZone();

// Returns the record as one line without its end: seq, UTC time, level, all fields that
// `descriptor` keeps in slots, and the message, separated by tabs. Texts are escaped by
// terminalField(), so that the line has no other tab and no line feed.
std::string plainLine(const runeflow::FetchedRow& record,
                      const runeflow::SourceDescriptor& descriptor);

}  // namespace host
