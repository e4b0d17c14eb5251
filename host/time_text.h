// SPDX-License-Identifier: MIT

// Reads the instants that users type: ISO 8601, a time of today, or a distance from now or from the
// newest record.
#pragma once

#include <cstdint>
#include <string>

namespace host {

// The instants that texts refer to, in microseconds since 1970-01-01T00:00:00Z.
struct TimeReference {
  std::int64_t now;
  std::int64_t end;  // the time of the newest record of a database
};

// Reads one of
//
//   2026-03-17                    midnight, local time
//   2026-03-17T14:05[:06[.789]]   local time; a blank may stand for the T
//   2026-03-17T14:05Z             with a zone: Z, +01, +01:00 or +0100
//   14:05[:06[.789]][ZONE]        today: the date of `now` in that zone
//   now, -15m, now-15m            now, and 15 minutes before
//   end, end-15m                  `end`, and 15 minutes before
//
// Distances are whole numbers with the unit ms, s, m, h, d (24 hours) or w, largest unit first:
// 1h30m. 24:00 is the end of a day. A local time that the clock shows twice means its first
// occurrence. A local time that the clock skips is read with the UTC offset after the change. The
// decoders date records by the same rules.
//
// Returns microseconds since 1970-01-01T00:00:00Z; further digits of a second are dropped. Fails if
// the text is none of these, or the result does not fit 64 bits.
std::int64_t parseTime(const std::string& text, const TimeReference& reference);

}  // namespace host
