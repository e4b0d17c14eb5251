// SPDX-License-Identifier: MIT

// Standard output and standard error. Every sentence to the user goes through this header, which
// escapes control sequences (host/terminal_text.h). fmt::print is for lines whose parts are escaped
// already.
#pragma once

#include <fmt/format.h>

#include <string_view>

namespace cli {

inline constexpr const char* kCannotWrite = "cannot write the output; is its disk full?";

// Flushes standard output. Fails if it cannot be written.
void flushOutput();

// Prints a line to standard output, escaped as a whole: a line feed among the arguments does not
// begin a new line. Throws std::system_error if standard output cannot be written.
void printEscaped(fmt::string_view format, fmt::format_args args);

template <class... Args>
void printLine(fmt::format_string<Args...> format, const Args&... args) {
  printEscaped(format, fmt::make_format_args(args...));
}

// Writes the bytes as they are to standard error: only for text that holds no words of others. The
// functions that write to standard error neither throw nor end the process if it cannot be written.
void writeError(std::string_view text) noexcept;

// Prints "runeflow: " and the sentence as one line to standard error, escaped as a whole.
void saySentence(fmt::string_view format, fmt::format_args args) noexcept;

template <class... Args>
void say(fmt::format_string<Args...> format, const Args&... args) noexcept {
  saySentence(format, fmt::make_format_args(args...));
}

// Prints a question to standard error, escaped as a whole and without a line feed.
void askQuestion(fmt::string_view format, fmt::format_args args) noexcept;

template <class... Args>
void ask(fmt::format_string<Args...> format, const Args&... args) noexcept {
  askQuestion(format, fmt::make_format_args(args...));
}

// Prints the error lines of the library's log as sentences from now on.
void sayLibraryLog();

// Opens every standard stream that is closed, so that its use fails. Otherwise the next file or
// socket would get the number of standard error, and sentences would go into it. Must be called
// before anything is opened.
void reserveStandardDescriptors();

}  // namespace cli
