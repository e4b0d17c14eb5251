/// \file
/// Turns a readable byte stream into stored records.
///
///     auto store = EventStore::open("phone.db", true, SourceDescriptor::logcat());
///     CaptureSession session("phone.db", SourceDescriptor::logcat());
///     session.run(fd, [] { return std::make_unique<LogcatDecoder>(std::chrono::system_clock::now);
///     },
///                 [] { /* the stream has ended, its records are stored */ });
///
/// There is no stop call: a host ends a capture by ending the stream, with shutdown() on a socket
/// or by closing the writing end of a pipe.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "runeflow/decoders/row_decoder.h"
#include "runeflow/model/source_descriptor.h"

namespace runeflow {

class Semaphore;

/// What the readers of one session have done so far.
struct CaptureProgress {
  std::int64_t bytesRead = 0;      ///< Bytes read from the streams.
  std::int64_t rowsDecoded = 0;    ///< Records that the decoders returned.
  std::int64_t rowsStored = 0;     ///< Records in committed batches.
  std::int64_t rowsLost = 0;       ///< Records that could not be stored; the log says why.
  std::int64_t readersFailed = 0;  ///< Readers that ended before their stream; the log says why.
};

/// Captures streams into one database file, one stream after the other.
///
/// run() starts a reader: a thread that reads a stream to its end, decodes it, stores the records
/// in batches and keeps the database under a size cap. A new reader waits up to 5 s for the
/// previous one of the session. A reader does not keep the session alive, and destroying the
/// session does not stop it.
///
/// One thread at a time may call run(); the other members may be called from any thread.
///
/// A reader that cannot start, that is ended by an exception or whose database file is deleted or
/// replaced writes a line to the log (AppLog, category "lifecycle"). A batch that cannot be written
/// is logged by the store and lost. A read error ends the stream. Records stored before stay in
/// every case.
///
/// After a flush that leaves more than 32 MB of write-ahead log, the reader empties the log and
/// waits up to 200 ms for readers that use it.
class CaptureSession {
 public:
  /// Returns the decoder of a stream; must not return null.
  using DecoderFactory = std::move_only_function<std::unique_ptr<RowDecoder>()>;
  /// Called when a reader has ended.
  using FinishCallback = std::move_only_function<void()>;

  /// The database at `dbPath` must exist with its schema before run() is called: open it with
  /// EventStore::open(dbPath, true, descriptor).
  CaptureSession(std::string dbPath, SourceDescriptor descriptor);
  ~CaptureSession();
  CaptureSession(const CaptureSession&) = delete;
  CaptureSession& operator=(const CaptureSession&) = delete;

  /// Sets the cap on the used bytes of the database; below 1 there is none, which is the default.
  /// Running readers apply a new cap after their next batch. A batch that finds the used bytes at
  /// or above the cap is followed by a trim of the 10,000 oldest records.
  void setMaxBytes(std::int64_t maxBytes);

  /// Bounds one trim in bytes of messages; below 1, which is the default, a trim deletes 10,000
  /// records. With a bound, the reader trims after a batch as often as needed until the used bytes
  /// are below the cap. It deletes at most a tenth of the records or twice the batch, whichever is
  /// more, and never the newest record. A host that expects long messages sets it: 10,000 records
  /// of 60 KB are 600 MB.
  void setTrimBytes(std::int64_t messageBytes);

  /// With `flushes` true, a reader also stores its pending records when the stream has been quiet
  /// for 33 ms. Without, which is the default, they wait for the next record or the end of the
  /// stream.
  void setFlushesWhenQuiet(bool flushes);

  /// Sets how long readers wait for locks of other connections; 5 s at first. Also shortens a wait
  /// that has begun, for a host that wants to end.
  void setLockWait(std::chrono::milliseconds wait);

  /// Starts a reader and returns at once. The reader owns `fd` and closes it when it ends.
  ///
  /// The reader calls `makeDecoder` once, after it has opened the database, and `onFinish`, which
  /// may be empty, when it has ended for any reason. `onFinish` must not throw. Both run on the
  /// reader's thread, which blocks SIGINT and the other asynchronous signals. The next reader may
  /// run while `onFinish` does. If the system cannot start a thread, `onFinish` runs before run()
  /// returns.
  void run(int fd, DecoderFactory makeDecoder, FinishCallback onFinish = nullptr);

  /// Returns the sums over all readers of the session.
  CaptureProgress progress() const;

 private:
  class Reader;
  class Shared;

  std::string dbPath_;
  SourceDescriptor descriptor_;
  std::shared_ptr<Semaphore> readerGate_;  // released when the reader started last ends
  std::shared_ptr<Shared> shared_;         // with the running readers
};

}  // namespace runeflow
