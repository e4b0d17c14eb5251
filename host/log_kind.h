// SPDX-License-Identifier: MIT

// The kinds of logs that the hosts can capture and show, in one table. A new kind is a new row.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "runeflow/decoders/row_decoder.h"
#include "runeflow/model/source_descriptor.h"

namespace host {

using Bytes = std::span<const std::uint8_t>;

struct LogKind {
  std::string_view id;         // as users name it, and the id of its descriptor
  std::string_view form;       // what a stream of this kind is, for messages
  std::string_view recordEnd;  // the bytes that end a record; empty if records carry their length
  const runeflow::SourceDescriptor& (*descriptor)();
  std::unique_ptr<runeflow::RowDecoder> (*makeDecoder)(runeflow::Clock now);
  std::size_t sampleSize;            // the largest number of bytes that `recognises` examines
  bool (*recognises)(Bytes sample);  // returns true if a stream of this kind begins with `sample`

  static const LogKind& dlt();
  static const LogKind& logcat();

  // Returns all kinds, in the order in which they are tried on a stream.
  static std::span<const LogKind> all();

  // Returns the kind with that id. If there is none, fails with a list of the ids.
  static const LogKind& named(std::string_view id);
};

// Returns the ids or forms of all kinds, joined by `separator`.
std::string joinKinds(std::string_view LogKind::* text, std::string_view separator);

}  // namespace host
