// SPDX-License-Identifier: MIT

// The connection to a ClickHouse server: statements over HTTP, their answers and their errors.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "fleet/address.h"
#include "fleet/login.h"
#include "host/failure.h"

namespace fleet {

// Why a statement failed, as a sentence that names the server.
class EngineError : public host::Failure {
 public:
  EngineError(const std::string& sentence, std::string engineText, bool isTransient)
      : host::Failure(sentence), engineText_(std::move(engineText)), isTransient_(isTransient) {}

  // The text of the engine or of libcurl alone. It holds what others wrote.
  const std::string& engineText() const { return engineText_; }
  // Whether the same statement may succeed later: the server is away, restarting or overloaded.
  bool isTransient() const { return isTransient_; }

 private:
  std::string engineText_;
  bool isTransient_;
};

// Thrown by a call that the caller's `isInterrupted` has ended.
struct Interrupted : host::Failure {
  Interrupted() : host::Failure("interrupted") {}
};

// One connection, kept open between statements. One thread at a time may use an object.
class Engine {
 public:
  // `isInterrupted` is asked a few times a second during a call, on the thread of the call.
  Engine(Address address, Login login, std::function<bool()> isInterrupted = nullptr);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const Address& address() const { return address_; }

  // Returns the whole answer: for statements with small answers. Fails beyond 64 MiB.
  std::string ask(const std::string& statement);

  // Passes the answer on in pieces. The server prepares the whole answer before it sends the first
  // byte, so that an error never stands in the middle of it.
  using OnPiece = std::function<void(std::string_view)>;
  void stream(const std::string& statement, const OnPiece& onPiece);

  // Sends an INSERT and its rows. Returns after the rows are stored, also those that a Distributed
  // table passes on to another server.
  void insert(const std::string& statement, std::string_view rows);

 private:
  struct Connection;
  void perform(const std::string& urlArguments, std::string_view body, long mostSeconds,
               const OnPiece& onPiece);
  std::string escapedForUrl(const std::string& text) const;

  Address address_;
  Login login_;
  std::function<bool()> isInterrupted_;
  std::unique_ptr<Connection> connection_;
};

// Calls `attempt` until it succeeds. After a transient error, calls `say` with a sentence and waits
// 1 s, 2 s, 4 s and so on up to 30 s. Other errors are passed on. `wait` waits that many
// milliseconds and returns true if the user has interrupted; then the function throws Interrupted.
void retrying(const std::function<void()>& attempt,
              const std::function<void(const std::string&)>& say,
              const std::function<bool(int milliseconds)>& wait);

}  // namespace fleet
