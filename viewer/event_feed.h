// SPDX-License-Identifier: MIT

// One stream of server-sent events, as the HTML standard defines them.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

namespace viewer {

// Passes events from any thread to a connection. Every event replaces an unsent one of the same
// name, so that a client that does not read costs a bounded amount of memory.
class EventFeed {
 public:
  // Queues an event. `json` must be one line.
  void send(const std::string& name, std::string json);
  // Queues a comment, by which the server notices that the client is gone.
  void beat();
  // Ends the stream after what is queued.
  void close();
  bool isClosed() const;

  // For the server: copies waiting bytes into `buffer` and returns their number. If there are none
  // and the stream has not ended, calls `suspend` and keeps `resume`, which the next event calls.
  // Both are called while the feed is locked.
  struct Read {
    std::size_t size;
    bool hasEnded;
  };
  Read read(std::span<char> buffer, const std::function<void()>& suspend,
            std::function<void()> resume);

 private:
  void wake();

  mutable std::mutex mutex_;
  std::map<std::string, std::string> events_;  // by name: the unsent text
  std::string sending_;                        // text that is partly sent
  std::size_t sent_ = 0;                       // bytes of it
  bool isClosed_ = false;
  std::function<void()> resume_;  // set while the connection is suspended
};

}  // namespace viewer
