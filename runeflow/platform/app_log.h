// SPDX-License-Identifier: MIT
/// \file
/// The library's diagnostic log. It reports the failures that the library does not return to its
/// caller.
///
/// By default, lines of level error go to standard error, and other lines are discarded. A host
/// (the program that uses the library) with a log of its own calls AppLog::attachSink() to receive
/// the lines. All functions may be called from any thread, but not from inside a sink.
#pragma once

#include <functional>
#include <string_view>

#include "runeflow/platform/api.h"

/// The library's diagnostic log and the means to redirect it.
namespace runeflow::AppLog {

/// The severity of a line, in ascending order.
enum class Level {
  debug,  ///< Details for a developer.
  info,   ///< Events of normal operation.
  error,  ///< Failures.
  off,    ///< Only as a minimum level: discards all lines. No line has this level.
};

/// One line of the log, as a sink receives it. The views are valid until the sink returns.
struct Line {
  std::string_view subsystem;  ///< A reverse-DNS identifier, the same for every line.
  std::string_view category;   ///< "store", "lifecycle" or "ui".
  Level level;                 ///< debug, info or error.
  std::string_view message;    ///< The text exactly as passed to the Logger.
};

/// Receives the lines of the log. The sink is called on the thread that logs, and never for two
/// lines at the same time. It must not log or attach a sink, because either would deadlock.
/// Exceptions that it throws are discarded.
using Sink = std::function<void(const Line&)>;

/// Makes `sink` the only receiver of all lines of `minimumLevel` and above. The library does not
/// build the text of lines below `minimumLevel`. If `sink` is empty, lines go to standard error
/// again. The previous sink is not called after attachSink() returns.
RUNEFLOW_EXPORT void attachSink(Sink sink, Level minimumLevel = Level::error);

/// Writes lines of one category. Loggers exist until the process ends.
class RUNEFLOW_EXPORT Logger {
 public:
  /// Returns true if `level` is enabled, which means that lines of this level are written. If it is
  /// not, the caller need not build the message.
  bool isEnabled(Level level) const;

  /// Writes `message` at level debug, if that level is enabled.
  void debug(std::string_view message) const { write(Level::debug, message); }
  /// Writes `message` at level info, if that level is enabled.
  void info(std::string_view message) const { write(Level::info, message); }
  /// Writes `message` at level error, if that level is enabled.
  void error(std::string_view message) const { write(Level::error, message); }

 private:
  friend const Logger& store();
  friend const Logger& lifecycle();
  friend const Logger& ui();

  explicit Logger(std::string_view category) : category_(category) {}
  void write(Level level, std::string_view message) const;
  std::string_view category_;
};

/// Returns the logger for the host's own lines, of category "ui". The library never writes to it.
RUNEFLOW_EXPORT const Logger& ui();

}  // namespace runeflow::AppLog
