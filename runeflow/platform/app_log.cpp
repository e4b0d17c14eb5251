// SPDX-License-Identifier: MIT
#include "runeflow/platform/app_log.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <mutex>
#include <string>

#include "runeflow/platform/app_log_p.h"

namespace runeflow::AppLog {
namespace {

spdlog::level::level_enum spdlogLevel(Level level) {
  using enum spdlog::level::level_enum;
  constexpr spdlog::level::level_enum kLevels[] = {debug, info, err, off};
  return kLevels[static_cast<std::size_t>(level)];
}

Level levelOf(spdlog::level::level_enum level) {
  if (level >= spdlog::level::err) return Level::error;
  return level >= spdlog::level::info ? Level::info : Level::debug;
}

// Passes lines to the host's sink, or to standard error if the host has attached none.
class SwitchingSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  SwitchingSink() {
    stderr_.set_pattern("%Y-%m-%d %H:%M:%S.%e [" + std::string(subsystem) + ":%n] %l: %v");
  }

  // After the swap `newSink` holds the old sink. It is destroyed after the lock is released,
  // because objects that the old sink captured may log in their destructors.
  void attach(Sink newSink, spdlog::level::level_enum minimumLevel) {
    const std::lock_guard lock(mutex_);
    sink_.swap(newSink);
    set_level(minimumLevel);
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    if (!should_log(message.level)) return;  // the level was raised after the logger's check
    if (!sink_) {
      stderr_.log(message);
      return;
    }
    try {
      sink_({subsystem,
             {message.logger_name.data(), message.logger_name.size()},
             levelOf(message.level),
             {message.payload.data(), message.payload.size()}});
    } catch (...) {
      // A failing sink must not stop the library from storing records.
    }
  }
  void flush_() override { stderr_.flush(); }

 private:
  Sink sink_;  // guarded by the base class's mutex_
  spdlog::sinks::stderr_sink_mt stderr_;
};

struct Loggers {
  std::shared_ptr<SwitchingSink> sink = std::make_shared<SwitchingSink>();
  spdlog::logger store{"store", sink};
  spdlog::logger lifecycle{"lifecycle", sink};
  spdlog::logger ui{"ui", sink};

  Loggers() { setLevel(Level::error); }

  void setLevel(Level level) {
    for (auto* logger : {&store, &lifecycle, &ui}) logger->set_level(spdlogLevel(level));
  }

  spdlog::logger& named(std::string_view category) {
    if (category == "store") return store;
    return category == "lifecycle" ? lifecycle : ui;
  }
};

Loggers& loggers() {
  // Never destroyed, because a reader thread may still log while the process exits.
  static auto* const all = std::make_unique<Loggers>().release();
  return *all;
}

}  // namespace

void attachSink(Sink sink, Level minimumLevel) {
  loggers().sink->attach(std::move(sink), spdlogLevel(minimumLevel));
  loggers().setLevel(minimumLevel);
}

bool Logger::isEnabled(Level level) const {
  return loggers().named(category_).should_log(spdlogLevel(level));
}

void Logger::write(Level level, std::string_view message) const {
  loggers().named(category_).log(spdlogLevel(level),
                                 spdlog::string_view_t(message.data(), message.size()));
}

const Logger& store() {
  static const Logger logger("store");
  return logger;
}

const Logger& lifecycle() {
  static const Logger logger("lifecycle");
  return logger;
}

const Logger& ui() {
  static const Logger logger("ui");
  return logger;
}

}  // namespace runeflow::AppLog
