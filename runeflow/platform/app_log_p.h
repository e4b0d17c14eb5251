// SPDX-License-Identifier: MIT

// The loggers for the library's own lines.
#pragma once

#include <fmt/format.h>

#include <utility>

#include "runeflow/platform/app_log.h"

namespace runeflow::AppLog {

// Line::subsystem of every line.
inline constexpr std::string_view subsystem = "org.runeflow.RuneflowCore";

const Logger& store();
const Logger& lifecycle();

// Formats and logs the message; does nothing if the error level is disabled.
template <class... Args>
void logError(const Logger& logger, fmt::format_string<Args...> format, Args&&... args) {
  if (logger.isEnabled(Level::error)) {
    logger.error(fmt::format(format, std::forward<Args>(args)...));
  }
}

}  // namespace runeflow::AppLog
