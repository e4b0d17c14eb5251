// SPDX-License-Identifier: MIT
#include "viewer.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "access.h"
#include "api.h"
#include "database.h"
#include "host/failure.h"
#include "http_server.h"

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
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  std::string address() const { return access_.address(); }

 private:
  Implementation(const ViewOptions& options, BoundSocket bound)
      : access_(bound.port),
        database_([this](const DatabaseState& state) { tell(state); }),
        api_(access_.root(), database_) {
    if (!options.path.empty()) database_.open(options.path, options.source);
    server_.emplace(std::move(bound.socket),
                    HttpServer::Handlers{
                        .refuse = [this](const auto& request) { return access_.refusal(request); },
                        .laneOf = [this](const auto& request) { return api_.laneOf(request); },
                        .answer = [this](const auto& request,
                                         auto worker) { return api_.answer(request, worker); }});
    beats_ = std::thread([this] { beat(); });
  }

  void tell(const DatabaseState& state) {
    api_.broadcast("state", stateJson(state));
    if (!state.error.empty()) api_.broadcast("gone", {{"error", state.error}});
  }

  void beat() {
    std::unique_lock lock(mutex_);
    while (!ending_.wait_for(lock, kBeatInterval, [this] { return isEnding_; })) api_.beat();
  }

  Access access_;
  Database database_;
  Api api_;
  std::optional<HttpServer> server_;

  std::mutex mutex_;
  bool isEnding_ = false;
  std::condition_variable ending_;
  std::thread beats_;
};

Viewer::Viewer(const ViewOptions& options)
    : implementation_(std::make_unique<Implementation>(options)) {}

Viewer::~Viewer() = default;

std::string Viewer::address() const {
  return implementation_->address();
}

}  // namespace viewer
