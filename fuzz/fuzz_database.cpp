// SPDX-License-Identifier: MIT

// Any bytes as a database file: every function of a store returns within seconds, a host fails only
// with a sentence, and looking at a file does not change it. (A file made by hand can keep SQLite
// busy for ever; see docs/architecture.md. Patches at random offsets do not build one.)
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support.h"
#include "host/database.h"
#include "host/failure.h"
#include "runeflow/platform/app_log.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"

namespace {

using namespace runeflow;
using fuzz::require;

constexpr double kLongest = 5;  // seconds of the processor: a busy machine proves nothing
constexpr std::size_t kLargestOffset = 0xffff;  // of a patch

const std::string& databasePath() {
  static const fuzz::ScratchFolder folder;
  static const std::string path = folder.file("any.db");
  return path;
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void replaceDatabase(std::string_view content) {
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    std::filesystem::remove(databasePath() + suffix);
  }
  std::ofstream file(databasePath(), std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  require(file.flush().good());
}

std::vector<LogRow> sampleRows(int count) {
  constexpr std::string_view kTags[] = {"Net", "Wifi", "Disk"};
  std::vector<LogRow> rows;
  for (int i = 0; i < count; ++i) {
    const auto number = std::to_string(i);
    rows.emplace_back(timestampFromMicroseconds(i), *levelFromRawValue(i % 6),
                      "disk full, wifi failed " + number, LogRow::Context{{"k", number}},
                      LogRow::Slots{kTags[i % 3], number, "", "x"});
  }
  return rows;
}

// A store of 50 records. The same on every run, because the offsets in the seeds count on it.
std::string validDatabase() {
  constexpr int kRows = 50;
  std::filesystem::remove(databasePath());
  auto store = *EventStore::open(databasePath(), true, SourceDescriptor::logcat());
  store.insert(sampleRows(kRows));
  require(store.count() == kRows && EventStore::inspect(databasePath()).fault == StoreFault::none);
  store.close();
  auto content = contentOf(databasePath());
  require(!content.empty() && content.size() <= kLargestOffset + 1);
  AppLog::attachSink([](const AppLog::Line&) {}, AppLog::Level::off);
  return content;
}

// Takes bytes off the input. Past its end, numbers are 0 and pieces are empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool isEmpty() const { return rest_.empty(); }
  std::string_view take(std::size_t size) {
    const auto piece = rest_.substr(0, size);
    rest_.remove_prefix(piece.size());
    return piece;
  }
  std::size_t number(std::size_t bytes) {  // big endian
    std::size_t result = 0;
    for (const char c : take(bytes)) result = result << 8 | static_cast<unsigned char>(c);
    return result;
  }

 private:
  std::string_view rest_;
};

// The first byte says what follows. Bit 0: the file itself. Otherwise patches of a valid file, each
// an offset of two bytes, a length of one byte and the bytes. Bit 1: before the patches, two bytes
// say how long the file is.
std::string fileOf(Input input) {
  static const std::string valid = validDatabase();
  const auto flags = input.number(1);
  if (flags & 1) return std::string(input.take(std::string_view::npos));
  std::string file = valid;
  if (flags & 2) file.resize(std::min(input.number(2), file.size()));
  while (!input.isEmpty()) {
    const auto offset = std::min(input.number(2), file.size());
    const auto bytes = input.take(input.number(1));
    file.replace(offset, std::min(bytes.size(), file.size() - offset), bytes);
  }
  return file;
}

void inspect(const std::string& content) {
  const auto info = EventStore::inspect(databasePath());
  require((info.fault == StoreFault::none) == info.faultText.empty());
  require(contentOf(databasePath()) == content);
}

// Asks for the records once and otherwise for numbers, because decoding records takes longest.
void readAll(EventStore& store) {
  static const std::vector kQueries = {
      QueryParser::parse("disk", store.descriptor(), false),
      QueryParser::parse("level:error FULL OR NOT tag:Net", store.descriptor(), true),
      QueryParser::parse("ctx.k:7 OR pid:3", store.descriptor(), false)};
  for (const auto& query : kQueries) {
    require(store.countMatching(query) >= 0);
    store.matchingSeqs(query, 7);
  }
  store.matchingSeqsQueryPlan(kQueries[0], 0);
  store.fetch(store.matchingSeqs({}, store.minSeq()));
  store.fetchRange(store.maxSeq(), std::numeric_limits<std::int64_t>::max());
  const auto values = store.distinctValues(StoreColumn::slot(2), kQueries[0], "n", -1);
  require(std::ranges::none_of(values, &std::string::empty));
  for (const auto& [value, count] : store.distinctValuesWithCounts(StoreColumn::slot(0), -1)) {
    require(!value.empty() && count > 0);
  }
  require(store.count() >= 0 && store.usedBytes() >= 0);
}

// Returns whether a host opened the file.
bool readAsHost() {
  try {
    auto store = host::openDatabase(databasePath(), "");
    readAll(store);
    return true;
  } catch (const host::Failure& failure) {
    require(std::string_view(failure.what()).contains(databasePath()));
    return false;
  }
}

void write(EventStore& store) {
  store.insert(sampleRows(3));
  store.trimOldest(1, 10);
  store.insert(sampleRows(1));
  store.clear();
  readAll(store);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto content = fileOf({data, size});
  const auto begin = std::clock();
  replaceDatabase(content);
  inspect(content);
  if (!readAsHost()) {
    auto store = EventStore::open(databasePath(), false, SourceDescriptor::logcat());
    if (store) readAll(*store);
  }
  if (auto store = EventStore::open(databasePath(), true, SourceDescriptor::logcat())) {
    write(*store);
  }
  require(static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC < kLongest);
  return 0;
}
