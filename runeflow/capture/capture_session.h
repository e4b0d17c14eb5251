// Turns a readable byte stream into stored records.
//
// run() hands a file descriptor to a reader thread of its own, which reads it to its end, decodes
// it, stores the records in batches and keeps the database under a size cap. There is no stop call:
// a host ends a capture by ending the stream (shutdown() on a socket, closing the writing end of a
// pipe).
//
// One session belongs to one database file, which must exist with its schema
// (EventStore::open(path, true, descriptor)). Its streams run one after the other: a new reader
// waits up to 5 s for the previous one. Readers do not keep the session alive, nor does its
// destruction stop them. run() is for one thread at a time; everything else may be called from any
// thread.
//
// A reader that cannot start says so in the log (AppLog, category "lifecycle"), a batch that cannot
// be written is logged by the store and lost, and a stream that can no longer be read has simply
// ended. The records stored before stay in every case.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "runeflow/decoders/row_decoder.h"
#include "runeflow/model/source_descriptor.h"

namespace runeflow {

class Semaphore;

// What the readers of one session have done so far.
struct CaptureProgress {
  std::int64_t bytesRead = 0;
  std::int64_t rowsDecoded = 0;
  std::int64_t rowsStored = 0;
  std::int64_t rowsLost = 0;  // their batch could not be written; the log says why
};

class CaptureSession {
 public:
  using DecoderFactory = std::move_only_function<std::unique_ptr<RowDecoder>()>;
  using FinishCallback = std::move_only_function<void()>;

  CaptureSession(std::string dbPath, SourceDescriptor descriptor);
  ~CaptureSession();
  CaptureSession(const CaptureSession&) = delete;
  CaptureSession& operator=(const CaptureSession&) = delete;

  // The cap on the database's used bytes; below 1 there is none. Running readers follow it from
  // their next batch on: at or above the cap every batch deletes the 10,000 oldest records.
  void setMaxBytes(std::int64_t maxBytes);

  // Starts a reader and returns at once. The reader owns `fd` from here on and closes it.
  // `makeDecoder` must give a decoder; it is called once, when the database has been opened.
  // `onFinish` (may be empty) is called when the reader has ended for whatever reason, and must not
  // throw. Both run on the reader thread, with SIGINT and the like blocked as in it; the next
  // reader may already run while `onFinish` does. When the system has no thread left, `onFinish`
  // runs before run() returns.
  void run(int fd, DecoderFactory makeDecoder, FinishCallback onFinish = nullptr);

  CaptureProgress progress() const;

 private:
  class Reader;
  class Shared;

  std::string dbPath_;
  SourceDescriptor descriptor_;
  std::shared_ptr<Semaphore> readerFinished_;  // released when the reader started last ends
  std::shared_ptr<Shared> shared_;             // with the running readers
};

}  // namespace runeflow
