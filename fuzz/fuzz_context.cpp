// SPDX-License-Identifier: MIT

// Any texts as a context map: its JSON reads back as the same map, a store returns the same map,
// and conditions on its members find the record.
#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support.h"
#include "runeflow/model/json_text_p.h"
#include "runeflow/store/event_store.h"

namespace {

using namespace runeflow;
using fuzz::require;

constexpr std::size_t kMostBytes = 1'024;  // keeps the scans of the store short
constexpr std::int64_t kRowsUntilClear = 256;

// Keys and values in turn, between bytes that never stand in UTF-8.
LogRow::Context contextOf(std::string_view input) {
  LogRow::Context context;
  const auto take = [&input] {
    const auto text = input.substr(0, input.find('\xff'));
    input.remove_prefix(std::min(text.size() + 1, input.size()));
    return std::string(text);
  };
  while (!input.empty()) {
    auto key = take();
    context.emplace(std::move(key), take());
  }
  return context;
}

bool isUtf8(const std::string& text) {
  try {
    return !nlohmann::json(text).dump().empty();
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

// Returns whether the map has a JSON text.
bool checkText(const LogRow::Context& context) {
  const auto text = jsonObject(context);
  const bool isValid = std::ranges::all_of(
      context, [](const auto& member) { return isUtf8(member.first) && isUtf8(member.second); });
  require(text.has_value() == isValid);
  if (!text) return false;
  require(nlohmann::json::parse(*text).get<LogRow::Context>() == context);
  for (const auto& [key, value] : context) require(text->contains(jsonMember(key, value)));
  return true;
}

EventStore& emptiedNowAndThen() {
  static const fuzz::ScratchFolder folder;
  static EventStore store =
      *EventStore::open(folder.file("context.db"), true, SourceDescriptor::logcat());
  if (store.maxSeq() >= kRowsUntilClear) store.clear();
  return store;
}

// No JSON path can express a key with a double quote.
void checkConditions(EventStore& store, std::int64_t seq, const LogRow::Context& context) {
  const auto found = [&](const std::string& key, const std::string& value, ContextMatch match) {
    return store.matchingSeqs({QueryNode::context({key, value, match})}, seq - 1);
  };
  for (const auto& [key, value] : context) {
    require(found(key, value, ContextMatch::substringScan) == std::vector{seq});
    if (key.contains('"')) continue;
    require(found(key, value, ContextMatch::json) == std::vector{seq});
    // A text is bound up to its first NUL character.
    if (!value.contains('\0')) require(found(key, value + '~', ContextMatch::json).empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto context = contextOf({reinterpret_cast<const char*>(data), std::min(size, kMostBytes)});
  const bool isStored = checkText(context) && !context.empty();

  const auto rowWith = [](std::optional<LogRow::Context> ctx) {
    return LogRow({}, RuneflowLogLevel::Info, "message", std::move(ctx), LogRow::Slots());
  };
  auto& store = emptiedNowAndThen();
  store.insert(std::vector{rowWith(context)});
  const auto seq = store.maxSeq();
  const auto expected = rowWith(isStored ? std::optional(context) : std::nullopt);
  require(store.fetch(std::vector{seq}) == std::vector{FetchedRow{seq, expected}});
  if (isStored) checkConditions(store, seq, context);
  return 0;
}
