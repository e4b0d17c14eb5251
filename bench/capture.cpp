// SPDX-License-Identifier: MIT

// Compares a whole capture, from bytes in a file to records in the database, with a bare program: a
// loop that stores the same rows from memory.
#include <fmt/format.h>

#include <fstream>
#include <future>
#include <memory>
#include <span>

#include "bench/bare.h"
#include "bench/dlt_messages.h"
#include "bench/measure.h"
#include "runeflow/capture/capture_session.h"
#include "runeflow/decoders/dlt_decoder.h"
#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/transports/file_transport.h"

using namespace runeflow;

namespace {

Timestamp constantClock() {
  return Timestamp(std::chrono::duration<double>(1'700'000'000));
}

struct Kind {
  const char* name;
  const SourceDescriptor& descriptor;
  std::vector<std::uint8_t> bytes;
  std::unique_ptr<RowDecoder> (*makeDecoder)();
};

std::vector<LogRow> decode(const Kind& kind) {
  return kind.makeDecoder()->consume(kind.bytes);
}

void capture(const std::string& input, const std::string& database, const Kind& kind) {
  std::promise<void> ended;
  CaptureSession session(database, kind.descriptor);
  session.run(FileTransport::openForReading(input), kind.makeDecoder,
              [&ended] { ended.set_value(); });
  ended.get_future().wait();
}

void measure(const Kind& kind, int rounds) {
  const bench::Folder folder;
  const auto input = folder.file("input");
  const auto ours = folder.file("ours.db");
  const auto bare = folder.file("bare.db");
  std::ofstream(input, std::ios::binary)
      .write(reinterpret_cast<const char*>(kind.bytes.data()),
             static_cast<std::streamsize>(kind.bytes.size()));
  const auto rows = decode(kind);
  const auto [captured, stored] = bench::medianSeconds(
      rounds,
      [&] {
        bench::createDatabase(ours, kind.descriptor);
        capture(input, ours, kind);
      },
      [&] {
        bench::createDatabase(bare, kind.descriptor);
        bench::insertBare(bare, rows);
      });
  const auto count = EventStore::open(ours, false, kind.descriptor)->count();
  const auto perSecond = [&](double seconds) { return static_cast<double>(rows.size()) / seconds; };
  fmt::print("{} capture: {} of {} rows, {:.0f} rows/s; bare insert {:.0f} rows/s; ratio {:.3f}\n",
             kind.name, count, rows.size(), perSecond(captured), perSecond(stored),
             captured / stored);
}

}  // namespace

int main() {
  const int rows = bench::rowCount(1'000'000);
  const int rounds = rows > 300'000 ? 3 : 5;
  const auto text = bench::logcatLines(rows);
  const bench::DltRecording recording(static_cast<std::size_t>(rows));
  measure({"logcat",
           SourceDescriptor::logcat(),
           {text.begin(), text.end()},
           []() -> std::unique_ptr<RowDecoder> {
             return std::make_unique<LogcatDecoder>(constantClock);
           }},
          rounds);
  measure(
      {"DLT", SourceDescriptor::dlt(), recording.bytes(),
       []() -> std::unique_ptr<RowDecoder> { return std::make_unique<DLTDecoder>(constantClock); }},
      rounds);
}
