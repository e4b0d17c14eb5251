// SPDX-License-Identifier: MIT

// Captures from a DLT daemon and prints each new record that matches a query. Ctrl-C ends it.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <iostream>
#include <thread>

#include "runeflow/capture/capture_session.h"
#include "runeflow/decoders/dlt_decoder.h"
#include "runeflow/platform/file_descriptor.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "runeflow/transports/socket_transport.h"

using namespace runeflow;
using namespace std::chrono_literals;
using std::chrono::system_clock;

volatile std::sig_atomic_t isEnding = 0;  // set by Ctrl-C

// Prints the matching records whose seq (SQLite rowid) is above `seen`. Returns the next `seen`.
std::int64_t printNew(EventStore& store, const LogQuery& query, std::int64_t seen) {
  const auto newest = store.maxSeq();  // read first, so that later records are not skipped
  const auto seqs = store.matchingSeqs(query, seen);
  for (const auto& [seq, row] : store.fetch(seqs)) {
    std::string line(row.message());  // untrusted text: keep control characters out
    std::ranges::replace_if(line, [](unsigned char c) { return c < ' ' || c >= 0x7f; }, '?');
    std::cout << seq << ' ' << line << '\n';
  }
  std::cout.flush();
  return std::max(newest, seqs.empty() ? 0 : seqs.back());
}

int main(int argc, char** argv) {
  if (argc != 5) return std::cerr << "usage: " << argv[0] << " HOST PORT DATABASE QUERY\n", 2;
  const auto port = static_cast<std::uint16_t>(std::stoi(argv[2]));
  const auto& descriptor = SourceDescriptor::dlt();
  auto store = EventStore::open(argv[3], true, descriptor);  // creates the tables for the capture
  if (!store) return std::cerr << "cannot open " << argv[3] << '\n', 2;
  std::signal(SIGINT, [](int) { isEnding = 1; });

  // Conditions on the time column count microseconds since 1970.
  const auto query = QueryParser::parse(argv[4], descriptor, false);
  const auto anHourAgo = *microsecondsSinceEpoch(system_clock::now() - 1h);
  const LogQuery recent{QueryNode::and_(
      {query.root, QueryNode::field({StoreColumn::timestamp(), FieldOp::greaterOrEqual,
                                     Bind::int_(anHourAgo)})})};
  // Called before run(): records that the capture stores later have a greater seq.
  auto seen = printNew(*store, recent, 0);

  CaptureSession session(argv[3], descriptor);
  for (; !isEnding; std::this_thread::sleep_for(1s)) {  // reconnects when a stream has ended
    const auto socket = SocketTransport::connect(argv[1], port, 5);
    if (!socket) {
      std::cerr << socket.error().message() << '\n';
      continue;
    }
    const FileDescriptor ours(::dup(*socket));  // for shutdown(); the reader closes *socket
    const auto ended = std::make_shared<std::promise<void>>();
    const auto end = ended->get_future();
    // The reader makes a decoder for this stream and destroys it at the end of the stream.
    session.run(
        *socket, [] { return std::make_unique<DLTDecoder>(system_clock::now); },
        [ended] { ended->set_value(); });
    for (bool hasEnded = false; !hasEnded; seen = printNew(*store, query, seen)) {
      if (isEnding) ::shutdown(ours.get(), SHUT_RDWR);
      hasEnded = end.wait_for(50ms) == std::future_status::ready;
    }
  }
}
