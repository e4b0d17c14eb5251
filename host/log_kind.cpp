// SPDX-License-Identifier: MIT
#include "host/log_kind.h"

#include <algorithm>
#include <utility>

#include "host/failure.h"
#include "runeflow/decoders/dlt_decoder.h"
#include "runeflow/decoders/logcat_decoder.h"

namespace host {
namespace {

using runeflow::DLTDecoder;
using runeflow::LogcatDecoder;
using runeflow::SourceDescriptor;

template <class Decoder>
std::unique_ptr<runeflow::RowDecoder> make(runeflow::Clock now) {
  return std::make_unique<Decoder>(std::move(now));
}

// DLT comes first, because the messages of a recording may hold lines of logcat text.
constexpr LogKind kKinds[] = {
    {"dlt", "a DLT recording", "", SourceDescriptor::dlt, make<DLTDecoder>, DLTDecoder::sampleSize,
     DLTDecoder::looksLikeRecording},
    {"logcat", "logcat threadtime text", "\n", SourceDescriptor::logcat, make<LogcatDecoder>,
     LogcatDecoder::sampleSize, LogcatDecoder::looksLikeThreadtime},
};

}  // namespace

const LogKind& LogKind::dlt() {
  return named("dlt");
}

const LogKind& LogKind::logcat() {
  return named("logcat");
}

std::span<const LogKind> LogKind::all() {
  return kKinds;
}

const LogKind& LogKind::named(std::string_view id) {
  const auto* found = std::ranges::find(kKinds, id, &LogKind::id);
  if (found == std::end(kKinds))
    fail("'{}' is not a kind of log; the kinds are {}", id, joinKinds(&LogKind::id, " and "));
  return *found;
}

std::string joinKinds(std::string_view LogKind::* text, std::string_view separator) {
  std::string joined;
  for (const auto& kind : kKinds) {
    if (!joined.empty()) joined += separator;
    joined += kind.*text;
  }
  return joined;
}

}  // namespace host
