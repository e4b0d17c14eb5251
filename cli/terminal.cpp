// SPDX-License-Identifier: MIT
#include "terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace cli {
namespace {

ColourWhen colourWhen = ColourWhen::automatic;

std::string_view environment(const char* name) {
  // Called before any other thread runs.
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  return value ? value : "";
}

std::optional<std::size_t> widthOf(std::FILE* stream) {
  winsize size{};
  if (::ioctl(::fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return std::nullopt;
  return size.ws_col;
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

void setColour(ColourWhen when) {
  colourWhen = when;
}

bool showsColour(std::FILE* stream) {
  if (colourWhen != ColourWhen::automatic) return colourWhen == ColourWhen::always;
  return isTerminal(stream) && environment("NO_COLOR").empty() && environment("TERM") != "dumb";
}

bool isForPeople() {
  return isTerminal(stdout) || colourWhen == ColourWhen::always;
}

int terminalWidth(std::FILE* stream) {
  constexpr std::size_t kUsualWidth = 80;
  return static_cast<int>(widthOf(stream).value_or(kUsualWidth));
}

std::optional<std::size_t> wrapWidth() {
  if (isTerminal(stdout)) return static_cast<std::size_t>(terminalWidth(stdout));
  return colourWhen == ColourWhen::always ? widthOf(stderr) : std::nullopt;
}

std::string counted(std::int64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
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
