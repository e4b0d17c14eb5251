// The loggers that only the library itself writes to.
#pragma once

#include <fmt/format.h>

#include <utility>

#include "runeflow/platform/app_log.h"

namespace runeflow::AppLog {

// The same in every line.
inline constexpr std::string_view subsystem = "org.runeflow.RuneflowCore";

const Logger& store();
const Logger& lifecycle();

// Builds the message only when somebody will read it.
template <class... Args>
void logError(const Logger& logger, fmt::format_string<Args...> format, Args&&... args) {
  if (logger.isEnabled(Level::error)) {
    logger.error(fmt::format(format, std::forward<Args>(args)...));
  }
}

}  // namespace runeflow::AppLog
