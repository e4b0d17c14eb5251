// SPDX-License-Identifier: MIT
#include "terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace cli {
namespace {

bool continuesCodePoint(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

std::string repeated(std::string_view glyph, std::int64_t times) {
  std::string text;
  for (std::int64_t i = 0; i < times; ++i) text += glyph;
  return text;
}

}  // namespace

bool isTerminal(std::FILE* stream) {
  return ::isatty(::fileno(stream)) == 1;
}

bool showsColour(std::FILE* stream) {
  // Called before any other thread runs.
  const char* noColor = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  return isTerminal(stream) && (!noColor || !*noColor);
}

int terminalWidth(std::FILE* stream) {
  constexpr int kUsualWidth = 80;
  winsize size{};
  if (::ioctl(::fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualWidth;
  return size.ws_col;
}

std::string counted(std::int64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::size_t columnsOf(std::string_view text) {
  return text.size() - static_cast<std::size_t>(std::ranges::count_if(text, continuesCodePoint));
}

std::string fitted(std::string_view text, std::size_t columns) {
  const auto taken = columnsOf(text);
  if (taken <= columns) return std::string(text) + std::string(columns - taken, ' ');
  std::size_t end = 0;
  for (std::size_t column = 0; column + 1 < columns; ++column) {
    do {
      ++end;
    } while (end < text.size() && continuesCodePoint(text[end]));
  }
  return std::string(text.substr(0, end)) + "…";
}

int barColumns(std::size_t taken) {
  constexpr int kLongestBar = 40;
  return std::clamp(terminalWidth(stdout) - static_cast<int>(taken), 1, kLongestBar);
}

std::string bar(std::int64_t value, std::int64_t most, int columns) {
  if (value <= 0 || most <= 0) return {};
  constexpr std::string_view kEighths[] = {"▏", "▎", "▍", "▌", "▋", "▊", "▉", "█"};
  const double share = static_cast<double>(value) / static_cast<double>(most);
  const auto eighths = std::max<std::int64_t>(1, static_cast<std::int64_t>(share * columns * 8));
  std::string text = repeated(kEighths[7], eighths / 8);
  if (eighths % 8) text += kEighths[eighths % 8 - 1];
  return text;
}

}  // namespace cli
