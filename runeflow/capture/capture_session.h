// SPDX-License-Identifier: MIT
/// \file
/// Turns a readable byte stream into stored records.
///
///     auto store = EventStore::open("phone.db", true, SourceDescriptor::logcat());
///     CaptureSession session("phone.db", SourceDescriptor::logcat());
///     const auto now = std::chrono::system_clock::now;
///     session.run(
///         fd, [now] { return std::make_unique<LogcatDecoder>(now); },
///         [] { /* the stream has ended and its records are stored */ });
///
/// There is no function that stops a capture. A host (the program that uses the library) ends a
/// capture by ending its stream: it calls shutdown() on the socket or closes the writing end of the
/// pipe.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "runeflow/decoders/row_decoder.h"
#include "runeflow/model/source_descriptor.h"
#include "runeflow/platform/api.h"
#include "runeflow/platform/unique_function.h"

namespace runeflow {

class Semaphore;

/// What the readers of one session have done so far, summed over all of them.
struct CaptureProgress {
  std::int64_t bytesRead = 0;      ///< Bytes read from the streams.
  std::int64_t rowsDecoded = 0;    ///< Records that the decoders returned.
  std::int64_t rowsStored = 0;     ///< Records in committed batches.
  std::int64_t rowsLost = 0;       ///< Records that could not be stored; the log says why.
  std::int64_t readersFailed = 0;  ///< Readers that ended before their stream; the log says why.
  /// Batches after which a trim, the deletion of the oldest records, failed; the log says why.
  std::int64_t trimsFailed = 0;
};

/// Captures streams into one database file, one stream after the other.
///
/// run() starts a reader: a thread that reads a stream to its end, decodes it and stores the
/// records in batches. If the session has a size cap, the reader trims the database after a batch:
/// it deletes the oldest records. A new reader waits until the previous reader of the session has
/// ended, but at most 5 s. Destroying the session does not stop its readers.
///
/// One thread at a time may call run(). The other members may be called from any thread.
///
/// A reader that cannot start, that is ended by an exception or whose database file is deleted or
/// replaced writes a line to the log (AppLog, category "lifecycle"). A batch that cannot be written
/// is logged by the store and lost. A read error ends the stream. Records stored before stay in
/// every case.
///
/// If the write-ahead log exceeds 32 MB after a batch, the reader empties the log. It waits up to
/// 200 ms for other connections that read from the log.
class RUNEFLOW_EXPORT CaptureSession {
 public:
  /// Creates the decoder of one stream. Must not return null.
  using DecoderFactory = UniqueFunction<std::unique_ptr<RowDecoder>()>;
  /// Called when a reader has ended. Must not throw.
  using FinishCallback = UniqueFunction<void()>;

  /// Creates a session that captures into the database at `dbPath`. The session does not create the
  /// database: the caller must call EventStore::open(dbPath, true, descriptor) before run().
  CaptureSession(std::string dbPath, SourceDescriptor descriptor);
  ~CaptureSession();
  CaptureSession(const CaptureSession&) = delete;
  CaptureSession& operator=(const CaptureSession&) = delete;

  /// Sets the size cap in bytes. A value below 1 means no cap, which is the default. After each
  /// batch, a reader compares EventStore::usedBytes() with the cap; if the cap is reached, the
  /// reader deletes the 10,000 oldest records. A running reader applies a new cap after its next
  /// batch.
  void setMaxBytes(std::int64_t maxBytes);

  /// Sets the size of one trim in bytes of messages. With a value below 1, which is the default, a
  /// reader trims once after a batch and deletes 10,000 records. Otherwise it trims repeatedly
  /// until the used bytes are below the cap. After one batch it deletes at most a tenth of the
  /// records or twice the size of the batch, whichever is more, and never the newest record.
  ///
  /// Set a size if messages may be long: 10,000 records of 60 KB are 600 MB.
  void setTrimBytes(std::int64_t messageBytes);

  /// If `flushes` is true, a reader stores the records of an unfinished batch when the stream has
  /// been quiet for 33 ms. If it is false, which is the default, these records wait for the next
  /// record or for the end of the stream.
  void setFlushesWhenQuiet(bool flushes);

  /// Sets how long readers wait for locks of other connections. The default is 5 s. The new value
  /// also applies to a wait that has begun, so that a host that wants to end can shorten it.
  void setLockWait(std::chrono::milliseconds wait);

  /// Starts a reader and returns at once. The reader owns `fd` and closes it when it ends.
  ///
  /// The reader calls `makeDecoder` once, after it has opened the database. It calls `onFinish`,
  /// which may be empty, when it has ended for any reason. Both run on the reader's thread, which
  /// blocks SIGINT and the other asynchronous signals. The next reader may already run while
  /// `onFinish` runs. If the system cannot start a thread, run() calls `onFinish` on the caller's
  /// thread before it returns.
  void run(int fd, DecoderFactory makeDecoder, FinishCallback onFinish = nullptr);

  /// Returns the progress of all readers of the session together.
  CaptureProgress progress() const;

 private:
  class Reader;
  class Shared;

  std::string dbPath_;
  SourceDescriptor descriptor_;
  std::shared_ptr<Semaphore> latestReaderEnded_;  // released when the latest reader ends
  std::shared_ptr<Shared> shared_;                // shared with the running readers
};

}  // namespace runeflow
