// SPDX-License-Identifier: MIT

// `runeflow view`: the server, without the command line around it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace viewer {

struct ViewOptions {
  std::string path;    // of a database or a log; empty: none is open at first
  std::string source;  // the kind of a database's records, if its indexes do not tell
  std::optional<std::uint16_t> port;  // if absent: defaultPort, or the next one that is free
};

// Serves from construction to destruction, which ends within a second.
class Viewer {
 public:
  static constexpr std::uint16_t defaultPort = 8417;

  // Fails with a sentence if the path cannot be opened, or if no port is free. Threads that it
  // starts inherit the signal mask of the caller.
  explicit Viewer(const ViewOptions& options);
  ~Viewer();
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;

  // What the user opens in a browser; it holds the token.
  std::string address() const;

  // What the user should know of the database, as a sentence; empty if there is nothing.
  std::string note() const;

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace viewer
