// SPDX-License-Identifier: MIT
#include "viewer.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>

#include "access.h"
#include "api.h"
#include "captures.h"
#include "database.h"
#include "host/failure.h"
#include "http_server.h"
#include "log_file.h"
#include "source_calls.h"

namespace viewer {
namespace {

constexpr std::chrono::seconds kBeatInterval{15};
constexpr std::uint16_t kPortsTried = 50;

struct BoundSocket {
  runeflow::FileDescriptor socket;
  std::uint16_t port;
};

BoundSocket bindTo(std::optional<std::uint16_t> wanted) {
  if (wanted) {
    auto socket = HttpServer::bind(*wanted);
    if (socket) return {std::move(socket), *wanted};
    host::fail("cannot serve on port {}: {}; choose another --port", *wanted,
               host::systemError(errno));
  }
  for (std::uint16_t i = 0; i < kPortsTried; ++i) {
    const auto port = static_cast<std::uint16_t>(Viewer::defaultPort + i);
    if (auto socket = HttpServer::bind(port)) return {std::move(socket), port};
  }
  host::fail("cannot serve on any port from {} to {}: {}; choose one with --port",
             Viewer::defaultPort, Viewer::defaultPort + kPortsTried - 1, host::systemError(errno));
}

}  // namespace

class Viewer::Implementation {
 public:
  explicit Implementation(const ViewOptions& options)
      : Implementation(options, bindTo(options.port)) {}

  ~Implementation() {
    {
      const std::lock_guard lock(mutex_);
      isEnding_ = true;
    }
    ending_.notify_all();
    beats_.join();
    api_.end();
    server_.reset();
    const bool isCut = endLog();
    // Their threads use the members below.
    captures_.end();
    database_.end();
    removeLog(isCut);
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  std::string address() const { return access_.address(); }
  std::string note() const { return log_ ? log_->note : std::string(); }

 private:
  Implementation(const ViewOptions& options, BoundSocket bound)
      : access_(bound.port),
        database_([this](const DatabaseState&) { tell(); }),
        captures_([this] { tell(); }),
        sourceCalls_(database_, captures_),
        api_(access_.root(), database_) {
    api_.add(sourceCalls_.routes());
    api_.add({{"GET", "info", Lane::quick, [this](const Call& call) {
                 return jsonAnswer(infoJson(call.state(), capturesJson(captures_.states())));
               }}});
    show(options);
    server_.emplace(std::move(bound.socket),
                    HttpServer::Handlers{
                        .headers = securityHeaders(),
                        .refuse = [this](const auto& request) { return access_.refusal(request); },
                        .laneOf = [this](const auto& request) { return api_.laneOf(request); },
                        .answer = [this](const auto& request,
                                         auto worker) { return api_.answer(request, worker); }});
    beats_ = std::thread([this] { beat(); });
  }

  void show(const ViewOptions& options) {
    if (options.path.empty()) return;
    if (isDatabase(options.path)) return database_.open(options.path, options.source);
    log_ = databaseOf(options.path, options.source);
    logName_ = options.path;
    if (log_->stream) logCapture_ = captures_.start(std::move(*log_->stream), log_->path, 0);
    database_.open(log_->path, "");
  }

  // Returns whether the capture of the log has to be cut short.
  bool endLog() {
    if (logCapture_ == 0) return false;
    for (const auto& state : captures_.states()) {
      if (state.id == logCapture_) return state.isRunning;
    }
    return false;
  }

  // Part of a log would be taken for the whole log the next time.
  void removeLog(bool isCut) {
    if (!log_) return;
    std::error_code ignored;
    if (!log_->temporaryFolder.empty()) {
      std::filesystem::remove_all(log_->temporaryFolder, ignored);
    } else if (isCut) {
      for (const auto* ending : {"", "-wal", "-shm"}) {
        std::filesystem::remove(log_->path + ending, ignored);
      }
    }
  }

  void tell() {
    const std::lock_guard lock(tellMutex_);  // so that no older state follows a newer one
    const auto state = database_.state();
    auto object = stateJson(state);
    object["captures"] = capturesJson(captures_.states());
    api_.broadcast("state", object);
    if (!state.error.empty()) api_.broadcast("gone", {{"error", state.error}});
  }

  void beat() {
    std::unique_lock lock(mutex_);
    while (!ending_.wait_for(lock, kBeatInterval, [this] { return isEnding_; })) api_.beat();
  }

  Access access_;
  std::mutex tellMutex_;
  Database database_;
  Captures captures_;
  SourceCalls sourceCalls_;
  Api api_;
  std::optional<HttpServer> server_;

  std::optional<LogDatabase> log_;
  std::string logName_;
  std::int64_t logCapture_ = 0;  // 0: none

  std::mutex mutex_;
  bool isEnding_ = false;
  std::condition_variable ending_;
  std::thread beats_;
};

Viewer::Viewer(const ViewOptions& options)
    : implementation_(std::make_unique<Implementation>(options)) {}

Viewer::~Viewer() = default;

std::string Viewer::note() const {
  return implementation_->note();
}

std::string Viewer::address() const {
  return implementation_->address();
}

}  // namespace viewer
