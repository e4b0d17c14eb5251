// SPDX-License-Identifier: MIT

// Resuming a logcat stream: a device that is connected to again sends records that are stored
// already.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "runeflow/decoders/row_decoder.h"
#include "runeflow/store/event_store.h"

namespace host {

// The newest stored records, and the time from which a device has to send records again.
class Overlap {
 public:
  // Reads the newest records of the store. A record may reach the log of a device up to a second
  // late, so the overlap begins a second before the time of the newest record that has one. It does
  // not use the latest time of all records: if the clock of the device was set back, the device
  // would send nothing until its clock reaches that time again.
  explicit Overlap(runeflow::EventStore& store);

  // Where logcat has to begin, as its option -T takes it ("MM-DD hh:mm:ss.mmm", the local time of
  // this machine, by which the records were dated). Absent for an empty store.
  std::optional<std::string> startForLogcat() const;

  // Returns a decoder that drops each stored record once. A device that logs the same line twice is
  // not cut short: what is stored once is dropped once.
  std::unique_ptr<runeflow::RowDecoder> without(
      std::unique_ptr<runeflow::RowDecoder> decoder) const;

 private:
  std::optional<std::int64_t> start_;                            // microseconds since 1970
  std::unordered_map<std::string, int> records_;                 // how often each is stored
  std::int64_t end_ = std::numeric_limits<std::int64_t>::min();  // after it no record is repeated
};

}  // namespace host
