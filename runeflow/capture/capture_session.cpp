// SPDX-License-Identifier: MIT
#include "runeflow/capture/capture_session.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "runeflow/platform/app_log_p.h"
#include "runeflow/platform/file_descriptor.h"
#include "runeflow/platform/semaphore_p.h"
#include "runeflow/platform/thread_p.h"
#include "runeflow/store/event_store.h"

namespace runeflow {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t kReadSize = 65'536;
constexpr std::size_t kBatchSize = 1'024;
constexpr std::int64_t kTrimChunk = 10'000;
constexpr std::int64_t kTrimStep = 64;
constexpr std::chrono::milliseconds kFlushInterval{33};
constexpr std::int64_t kLargestLog = std::int64_t{32} << 20;
constexpr std::int64_t kLogStep = std::int64_t{4} << 20;
constexpr std::chrono::milliseconds kLogWait{200};
constexpr std::chrono::seconds kHandOver{5};
constexpr std::size_t kReaderStack = std::size_t{4} << 20;

}  // namespace

// The state that a session shares with its running readers.
class CaptureSession::Shared {
 public:
  std::atomic<std::int64_t> maxBytes = 0;
  std::atomic<std::int64_t> trimBytes = 0;
  std::atomic<bool> flushesWhenQuiet = false;
  const std::shared_ptr<std::atomic<std::int64_t>> lockWait =
      std::make_shared<std::atomic<std::int64_t>>(5000);
  std::atomic<std::int64_t> bytesRead = 0;
  std::atomic<std::int64_t> rowsDecoded = 0;
  std::atomic<std::int64_t> rowsStored = 0;
  std::atomic<std::int64_t> rowsLost = 0;
  std::atomic<std::int64_t> readersFailed = 0;
  std::atomic<std::int64_t> trimsFailed = 0;
};

// Everything that one reader thread touches.
class CaptureSession::Reader {
 public:
  Reader(const CaptureSession& session, std::shared_ptr<Semaphore> previous, int fd,
         DecoderFactory makeDecoder, FinishCallback onFinish)
      : previous_(std::move(previous)),
        finished_(session.latestReaderEnded_),
        fd_(fd),
        dbPath_(session.dbPath_),
        descriptor_(session.descriptor_),
        shared_(session.shared_),
        makeDecoder_(std::move(makeDecoder)),
        onFinish_(std::move(onFinish)) {}

  void run() {
    if (previous_ && !previous_->tryAcquireFor(kHandOver)) {
      AppLog::logError(AppLog::lifecycle(),
                       "reader: previous reader did not finish within 5s; proceeding");
    }
    if (!guarded([this] { capture(); })) {
      // What was decoded before the exception is stored.
      if (!guarded([this] { flushPending(); })) loseBatch();
    }
    end();
  }

  void giveUp() {
    AppLog::logError(AppLog::lifecycle(), "reader: the system gave no thread; not starting");
    ++shared_->readersFailed;
    end();
  }

 private:
  // Returns false if `work` threw, which the host's decoder and every allocation may do.
  bool guarded(const auto& work) {
    try {
      work();
      return true;
    } catch (const std::exception& failure) {
      fail("reader: ended by an exception: {}", failure.what());
    } catch (...) {
      fail("reader: ended by an exception: {}", "not a std::exception");
    }
    return false;
  }

  template <class... Args>
  void fail(fmt::format_string<Args...> format, Args&&... args) {
    ++shared_->readersFailed;
    AppLog::logError(AppLog::lifecycle(), format, std::forward<Args>(args)...);
  }

  void capture() {
    if (!fd_) return fail("reader got an invalid descriptor; not starting");
    store_ = EventStore::open(dbPath_, false, descriptor_);
    if (!store_) return fail("reader could not open store at {}", dbPath_);
    store_->setLockWait(shared_->lockWait);
    store_->prepareForCapture();
    readToEnd();
  }

  void readToEnd() {
    decoder_ = makeDecoder_();
    std::vector<std::uint8_t> buffer(kReadSize);
    batch_.reserve(kBatchSize);
    lastFlush_ = SteadyClock::now();
    while (!hasLostItsFile_) {
      if (shared_->flushesWhenQuiet && !batch_.empty() && isQuiet()) {
        flush();
        continue;
      }
      const ssize_t size = ::read(fd_.get(), buffer.data(), buffer.size());
      if (size <= 0) break;
      shared_->bytesRead += size;
      keep(decoder_->consume(std::span(buffer).first(static_cast<std::size_t>(size))));
    }
    flushPending();
  }

  // Waits for kFlushInterval. Returns false as soon as the stream has more bytes or has ended.
  bool isQuiet() const {
    pollfd waiting{.fd = fd_.get(), .events = POLLIN, .revents = 0};
    return ::poll(&waiting, 1, static_cast<int>(kFlushInterval.count())) == 0;
  }

  void keep(std::vector<LogRow> rows) {
    shared_->rowsDecoded += static_cast<std::int64_t>(rows.size());
    for (auto& row : rows) {
      batch_.push_back(std::move(row));
      if (batch_.size() >= kBatchSize || SteadyClock::now() - lastFlush_ >= kFlushInterval) flush();
    }
  }

  void flushPending() {
    if (store_ && !batch_.empty()) flush();
  }

  void flush() {
    if (hasLostItsFile_) return loseBatch();
    const auto before = store_->insertedRows();
    store_->insert(batch_);
    const auto stored = store_->insertedRows() - before;
    if (store_->hasLostItsFile()) {
      hasLostItsFile_ = true;
      fail("reader: {} was deleted or replaced; ending", dbPath_);
      return loseBatch();
    }
    const auto size = static_cast<std::int64_t>(batch_.size());
    batch_.clear();
    lastFlush_ = SteadyClock::now();
    shared_->rowsStored += stored;
    shared_->rowsLost += size - stored;
    if (const auto maxBytes = shared_->maxBytes.load(); maxBytes >= 1) {
      store_->takeError();  // of the batch, which is counted already
      trim(maxBytes, size);
      if (store_->takeError()) ++shared_->trimsFailed;
    }
    emptyLargeLog();
  }

  void loseBatch() {
    shared_->rowsLost += static_cast<std::int64_t>(batch_.size());
    batch_.clear();
  }

  void trim(std::int64_t maxBytes, std::int64_t batchSize) {
    const auto trimBytes = shared_->trimBytes.load();
    if (trimBytes < 1) {
      store_->trimOldest(maxBytes, kTrimChunk);
      return;
    }
    constexpr std::int64_t kShare = 10;  // a flush deletes at most a tenth of the records
    auto left = std::max(recordsInStore() / kShare, 2 * batchSize);
    while (left > 0) {
      // Deletes about as many records as the excess in one trim, because each is a transaction.
      const auto used = store_->usedBytes();
      const auto bytesPerRecord =
          std::max<std::int64_t>(1, used / std::max<std::int64_t>(1, recordsInStore()));
      const auto wanted = std::max((used - maxBytes) / bytesPerRecord, kTrimStep);
      const auto deleted = store_->trimWithin(maxBytes, std::min(left, wanted), trimBytes);
      if (deleted < 1) return;
      left -= deleted;
    }
  }

  std::int64_t recordsInStore() { return store_->maxSeq() - store_->minSeq() + 1; }

  // SQLite reuses the space of its write-ahead log only at a moment without readers. If readers
  // pause for only a few milliseconds, there may be no such moment.
  void emptyLargeLog() {
    const auto size = store_->logBytes();
    if (size < nextEmptying_) return;
    nextEmptying_ = store_->emptyLog(kLogWait) ? kLargestLog : size + kLogStep;
  }

  // Releases the semaphore before the host's callback runs, so that the next reader does not wait
  // for the callback.
  void end() {
    store_.reset();
    decoder_.reset();
    fd_.reset();
    finished_->release();
    if (onFinish_) onFinish_();
  }

  std::shared_ptr<Semaphore> previous_;
  std::shared_ptr<Semaphore> finished_;
  FileDescriptor fd_;
  std::string dbPath_;
  SourceDescriptor descriptor_;
  std::shared_ptr<Shared> shared_;
  DecoderFactory makeDecoder_;
  FinishCallback onFinish_;

  std::optional<EventStore> store_;
  std::unique_ptr<RowDecoder> decoder_;
  std::vector<LogRow> batch_;
  bool hasLostItsFile_ = false;
  std::int64_t nextEmptying_ = kLargestLog;  // the size of the log at which to empty it
  SteadyClock::time_point lastFlush_;
};

CaptureSession::CaptureSession(std::string dbPath, SourceDescriptor descriptor)
    : dbPath_(std::move(dbPath)),
      descriptor_(std::move(descriptor)),
      shared_(std::make_shared<Shared>()) {}

CaptureSession::~CaptureSession() = default;

void CaptureSession::setMaxBytes(std::int64_t maxBytes) {
  shared_->maxBytes = maxBytes;
}

void CaptureSession::setTrimBytes(std::int64_t messageBytes) {
  shared_->trimBytes = messageBytes;
}

void CaptureSession::setFlushesWhenQuiet(bool flushes) {
  shared_->flushesWhenQuiet = flushes;
}

void CaptureSession::setLockWait(std::chrono::milliseconds wait) {
  *shared_->lockWait = wait.count();
}

void CaptureSession::run(int fd, DecoderFactory makeDecoder, FinishCallback onFinish) {
  const auto before = std::exchange(latestReaderEnded_, std::make_shared<Semaphore>());
  auto reader =
      std::make_shared<Reader>(*this, before, fd, std::move(makeDecoder), std::move(onFinish));
  UniqueFunction<void()> body = [reader] { reader->run(); };
  if (!startThread({"runeflow.log-reader", kReaderStack}, body)) {
    latestReaderEnded_ = before;  // the next reader must wait for the reader before this one
    reader->giveUp();
  }
}

CaptureProgress CaptureSession::progress() const {
  // Loaded before rowsDecoded, so that their sum never exceeds it.
  const std::int64_t stored = shared_->rowsStored;
  const std::int64_t lost = shared_->rowsLost;
  return {shared_->bytesRead,     shared_->rowsDecoded, stored, lost,
          shared_->readersFailed, shared_->trimsFailed};
}

}  // namespace runeflow
