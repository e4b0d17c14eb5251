#include "runeflow/capture/capture_session.h"

#include <unistd.h>

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
constexpr std::chrono::milliseconds kFlushInterval{33};
constexpr std::chrono::seconds kHandOver{5};
constexpr std::size_t kReaderStack = std::size_t{4} << 20;

}  // namespace

// The state that a session shares with its running readers.
class CaptureSession::Shared {
 public:
  std::atomic<std::int64_t> maxBytes = 0;
  std::atomic<std::int64_t> bytesRead = 0;
  std::atomic<std::int64_t> rowsDecoded = 0;
  std::atomic<std::int64_t> rowsStored = 0;
  std::atomic<std::int64_t> rowsLost = 0;
};

// Everything that one reader thread touches.
class CaptureSession::Reader {
 public:
  Reader(const CaptureSession& session, std::shared_ptr<Semaphore> previous, int fd,
         DecoderFactory makeDecoder, FinishCallback onFinish)
      : previous_(std::move(previous)),
        finished_(session.readerGate_),
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
    try {
      capture();
    } catch (const std::exception& failure) {  // thrown by the host's decoder or by an allocation
      AppLog::logError(AppLog::lifecycle(), "reader: ended by an exception: {}", failure.what());
    }
    end();
  }

  void giveUp() {
    AppLog::logError(AppLog::lifecycle(), "reader: the system gave no thread; not starting");
    end();
  }

 private:
  void capture() {
    if (!fd_) {
      AppLog::logError(AppLog::lifecycle(), "reader got an invalid descriptor; not starting");
      return;
    }
    store_ = EventStore::open(dbPath_, false, descriptor_);
    if (!store_) {
      AppLog::logError(AppLog::lifecycle(), "reader could not open store at {}", dbPath_);
      return;
    }
    readToEnd();
  }

  void readToEnd() {
    decoder_ = makeDecoder_();
    std::vector<std::uint8_t> buffer(kReadSize);
    batch_.reserve(kBatchSize);
    lastFlush_ = SteadyClock::now();
    for (;;) {
      const ssize_t size = ::read(fd_.get(), buffer.data(), buffer.size());
      if (size <= 0) break;
      shared_->bytesRead += size;
      keep(decoder_->consume(std::span(buffer).first(static_cast<std::size_t>(size))));
    }
    if (!batch_.empty()) flush();
  }

  void keep(std::vector<LogRow> rows) {
    shared_->rowsDecoded += static_cast<std::int64_t>(rows.size());
    for (auto& row : rows) {
      batch_.push_back(std::move(row));
      if (batch_.size() >= kBatchSize || SteadyClock::now() - lastFlush_ >= kFlushInterval) flush();
    }
  }

  void flush() {
    const auto before = store_->insertedRows();
    store_->insert(batch_);
    const auto stored = store_->insertedRows() - before;
    shared_->rowsStored += stored;
    shared_->rowsLost += static_cast<std::int64_t>(batch_.size()) - stored;
    batch_.clear();
    lastFlush_ = SteadyClock::now();
    if (const auto maxBytes = shared_->maxBytes.load(); maxBytes >= 1) {
      store_->trimOldest(maxBytes, kTrimChunk);
    }
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

void CaptureSession::run(int fd, DecoderFactory makeDecoder, FinishCallback onFinish) {
  const auto before = std::exchange(readerGate_, std::make_shared<Semaphore>());
  auto reader =
      std::make_shared<Reader>(*this, before, fd, std::move(makeDecoder), std::move(onFinish));
  std::move_only_function<void()> body = [reader] { reader->run(); };
  if (!startThread({"runeflow.log-reader", kReaderStack}, body)) {
    readerGate_ = before;  // the next reader must wait for the reader before this one
    reader->giveUp();
  }
}

CaptureProgress CaptureSession::progress() const {
  // Loaded before rowsDecoded, so that their sum never exceeds it.
  const std::int64_t stored = shared_->rowsStored;
  const std::int64_t lost = shared_->rowsLost;
  return {shared_->bytesRead, shared_->rowsDecoded, stored, lost};
}

}  // namespace runeflow
