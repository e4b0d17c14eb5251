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
  std::size_t sampleSize;            // how many bytes of a stream `recognises` examines at most
  bool (*recognises)(Bytes sample);  // whether a stream that begins with `sample` is of this kind

  static const LogKind& dlt();
  static const LogKind& logcat();

  // In the order in which they are tried on a stream.
  static std::span<const LogKind> all();

  // Returns the kind with that id. Fails with the ids that there are.
  static const LogKind& named(std::string_view id);
};

// The ids or forms of all kinds, joined by `separator`.
std::string joinKinds(std::string_view LogKind::* text, std::string_view separator);

}  // namespace host
