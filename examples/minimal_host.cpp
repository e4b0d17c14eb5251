// SPDX-License-Identifier: MIT

// Captures a saved logcat file into a database, then prints the records that match a query.
#include <chrono>
#include <future>
#include <iostream>

#include "runeflow/capture/capture_session.h"
#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "runeflow/transports/file_transport.h"

using namespace runeflow;

int main(int argc, char** argv) {
  if (argc != 4) return std::cerr << "usage: " << argv[0] << " LOG DATABASE QUERY\n", 2;
  const auto& descriptor = SourceDescriptor::logcat();
  auto store = EventStore::open(argv[2], true, descriptor);
  const int log = FileTransport::openForReading(argv[1]);
  if (!store || log < 0)
    return std::cerr << "cannot open " << argv[1] << " or " << argv[2] << '\n', 2;

  std::promise<void> ended;
  CaptureSession session(argv[2], descriptor);
  session.run(
      log, [] { return std::make_unique<LogcatDecoder>(std::chrono::system_clock::now); },
      [&ended] { ended.set_value(); });
  ended.get_future().wait();

  const auto query = QueryParser::parse(argv[3], descriptor, false);
  for (const auto& [seq, row] : store->fetch(store->matchingSeqs(query, 0))) {
    std::cout << seq << ' ' << row.message() << '\n';
  }
}
