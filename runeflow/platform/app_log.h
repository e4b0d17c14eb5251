// The library's diagnostic log: the failures that it swallows instead of returning them.
//
// Every line carries a subsystem, a category and a level. By default lines go to standard error; a
// host that has a log of its own attaches a sink. Everything here may be called from any thread.
#pragma once

#include <functional>
#include <string_view>

namespace runeflow::AppLog {

enum class Level { debug, info, error, off };

struct Line {
  std::string_view subsystem;  // reverse-DNS identifier, the same for every line
  std::string_view category;   // "store", "lifecycle" or "ui"
  Level level;
  std::string_view message;  // the views live until the sink returns
};

// Called on the thread that logs, one line at a time. It must neither log nor attach a sink itself;
// what it throws is swallowed.
using Sink = std::function<void(const Line&)>;

// From now on lines of `minimumLevel` and above go to `sink` and nowhere else; the others are not
// even built. An empty sink brings standard error back.
void attachSink(Sink sink, Level minimumLevel = Level::error);

class Logger {
 public:
  bool isEnabled(Level level) const;
  void debug(std::string_view message) const { write(Level::debug, message); }
  void info(std::string_view message) const { write(Level::info, message); }
  void error(std::string_view message) const { write(Level::error, message); }

 private:
  friend const Logger& store();
  friend const Logger& lifecycle();
  friend const Logger& ui();

  explicit Logger(std::string_view category) : category_(category) {}
  void write(Level level, std::string_view message) const;
  std::string_view category_;
};

// For the host's own lines; the library writes nothing to it.
const Logger& ui();

}  // namespace runeflow::AppLog
