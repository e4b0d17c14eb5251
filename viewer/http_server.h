// SPDX-License-Identifier: MIT

// HTTP on the loopback interface, on top of libmicrohttpd. One thread serves all sockets. A request
// that was admitted runs on one of a few worker threads, while its connection is suspended: idle
// connections, slow clients and event streams occupy no worker.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "event_feed.h"
#include "runeflow/platform/file_descriptor.h"

namespace viewer {

struct HttpRequest {
  std::string method;
  std::string path;                                             // decoded, without the parameters
  std::vector<std::pair<std::string, std::string>> parameters;  // decoded, in their order
  std::multimap<std::string, std::string> headers;              // names in lower case
  std::string body;

  // Returns the first parameter or header with that name, or absence.
  std::optional<std::string> parameter(std::string_view name) const;
  std::optional<std::string> header(const std::string& lowerCaseName) const;
};

struct HttpAnswer {
  unsigned int status = 200;
  std::string type = "text/plain; charset=utf-8";
  std::string body = {};
  std::vector<std::pair<std::string, std::string>> headers = {};
  std::shared_ptr<EventFeed> feed = nullptr;  // if set, the answer is this stream of events
  bool closes = false;                        // the connection ends after the answer
};

// The workers of one lane take the requests of that lane only, in the order of their arrival.
enum class Lane : std::uint8_t {
  quick,    // short reads
  matches,  // the records that match a query, a page at a time
  slow,     // reads that may go through the whole database
  outside   // waits for other servers and programs
};

class HttpServer {
 public:
  static constexpr std::size_t mostConnections = 200;  // beyond, requests are answered with 503
  static constexpr std::size_t mostBodyBytes = 65'536;
  static constexpr std::size_t mostHeaderBytes = 65'536;
  static constexpr std::size_t mostWaiting = 256;  // requests of a lane without a worker
  // How long a client may take for a request, and leave a connection idle.
  static constexpr std::chrono::seconds patience{20};

  struct Handlers {
    // Headers of every answer.
    std::vector<std::pair<std::string, std::string>> headers;
    // Called on the network thread when the headers of a request have arrived, before its body is
    // read. Returns the answer to a request that is refused. Must not block.
    std::function<std::optional<HttpAnswer>(const HttpRequest&)> refuse;
    // Returns the lane of an admitted request. Called on the network thread, in the order in which
    // the requests arrive. Must not block.
    std::function<Lane(const HttpRequest&)> laneOf;
    // Answers a request, on a worker of its lane. `worker` counts the workers of all lanes from 0.
    std::function<HttpAnswer(const HttpRequest&, std::size_t worker)> answer;
  };

  // The number of workers of all lanes.
  static std::size_t workerCount();

  // Binds a socket to `port` of 127.0.0.1. Returns an invalid descriptor if the port is taken, with
  // errno set.
  static runeflow::FileDescriptor bind(std::uint16_t port);

  // Serves connections to `socket`, a result of bind(). Fails if the system lacks threads.
  HttpServer(runeflow::FileDescriptor socket, Handlers handlers);
  // Closes all connections; the caller has made running answers end soon.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace viewer
