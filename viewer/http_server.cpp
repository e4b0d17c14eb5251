// SPDX-License-Identifier: MIT
#include "http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <span>
#include <thread>

#include "host/failure.h"

namespace viewer {

using runeflow::FileDescriptor;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::array<std::size_t, 4> kWorkers = {3, 2, 2, 3};  // by lane
constexpr unsigned int kServiceUnavailable = 503;
constexpr unsigned int kContentTooLarge = 413;
constexpr unsigned int kInactiveSeconds = 40;  // of a client that does not take its answer
constexpr std::size_t kFeedBlock = 4'096;

// One request and its answer. The network thread owns it; a worker uses it while the connection is
// suspended.
struct Exchange {
  MHD_Connection* connection = nullptr;
  HttpRequest request;
  std::optional<HttpAnswer> answer;
};

std::string lowered(std::string_view text) {
  std::string lower(text);
  for (auto& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

HttpAnswer plain(unsigned int status, std::string sentence) {
  return {.status = status, .body = std::move(sentence), .closes = true};
}

using Response = std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)>;

// What libmicrohttpd hands back to the feed's callbacks.
struct FeedReader {
  MHD_Connection* connection;
  std::shared_ptr<EventFeed> feed;
};

ssize_t readFeed(void* state, std::uint64_t /*position*/, char* buffer, std::size_t size) {
  const auto& reader = *static_cast<FeedReader*>(state);
  auto* connection = reader.connection;
  const auto read = reader.feed->read(
      {buffer, size}, [connection] { MHD_suspend_connection(connection); },
      [connection] { MHD_resume_connection(connection); });
  if (read.hasEnded) return MHD_CONTENT_READER_END_OF_STREAM;
  return static_cast<ssize_t>(read.size);
}

void freeFeed(void* state) {
  const std::unique_ptr<FeedReader> reader(static_cast<FeedReader*>(state));
  reader->feed->close();
}

Response responseTo(MHD_Connection* connection, HttpAnswer& answer) {
  MHD_Response* made = nullptr;
  if (answer.feed) {
    auto reader = std::make_unique<FeedReader>(connection, answer.feed);
    made = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kFeedBlock, readFeed, reader.get(),
                                             freeFeed);
    if (made) [[maybe_unused]]
      auto* const owned = reader.release();  // freeFeed() deletes it
  } else {
    made = MHD_create_response_from_buffer(answer.body.size(), answer.body.data(),
                                           MHD_RESPMEM_MUST_COPY);
  }
  return {made, MHD_destroy_response};
}

using Headers = std::vector<std::pair<std::string, std::string>>;

MHD_Result send(MHD_Connection* connection, HttpAnswer& answer, const Headers& common) {
  const auto response = responseTo(connection, answer);
  if (!response) return MHD_NO;
  MHD_add_response_header(response.get(), "Content-Type", answer.type.c_str());
  for (const auto& headers : {std::cref(common), std::cref(answer.headers)}) {
    for (const auto& [name, value] : headers.get()) {
      MHD_add_response_header(response.get(), name.c_str(), value.c_str());
    }
  }
  if (answer.closes) MHD_add_response_header(response.get(), "Connection", "close");
  return MHD_queue_response(connection, answer.status, response.get());
}

}  // namespace

std::optional<std::string> HttpRequest::parameter(std::string_view name) const {
  const auto found = std::ranges::find(parameters, name, [](const auto& p) { return p.first; });
  return found == parameters.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> HttpRequest::header(const std::string& lowerCaseName) const {
  const auto found = headers.find(lowerCaseName);
  return found == headers.end() ? std::nullopt : std::optional(found->second);
}

class HttpServer::Implementation {
 public:
  Implementation(FileDescriptor socket, Handlers handlers)
      : socket_(std::move(socket)), handlers_(std::move(handlers)) {
    std::size_t worker = 0;
    for (std::size_t lane = 0; lane < kWorkers.size(); ++lane) {
      for (std::size_t i = 0; i < kWorkers[lane]; ++i, ++worker) {
        threads_.emplace_back([this, lane, worker] { work(lanes_[lane], worker); });
      }
    }
    threads_.emplace_back([this] { closeTheSlow(); });
    // Above the number that is served, so that further clients get an answer.
    constexpr unsigned int kAccepted = mostConnections + 50;
    daemon_ = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, access, this,
        MHD_OPTION_LISTEN_SOCKET, socket_.get(), MHD_OPTION_CONNECTION_LIMIT, kAccepted,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, mostHeaderBytes, MHD_OPTION_CONNECTION_TIMEOUT,
        kInactiveSeconds, MHD_OPTION_NOTIFY_COMPLETED, completed, this,
        MHD_OPTION_NOTIFY_CONNECTION, connected, this, MHD_OPTION_END);
    if (!daemon_) {
      stopThreads();
      host::fail("cannot serve: {}", host::systemError(errno));
    }
    static_cast<void>(socket_.release());  // libmicrohttpd closes it
  }

  ~Implementation() {
    stopThreads();
    MHD_stop_daemon(daemon_);
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

 private:
  struct Queue {
    std::deque<Exchange*> waiting;
    std::condition_variable hasWork;
  };
  struct Client {
    int socket;
    Clock::time_point since;  // when it connected, or when its last request was answered
    bool isServed;            // its request is complete and not answered yet
  };

  static MHD_Result access(void* self, MHD_Connection* connection, const char* url,
                           const char* method, const char* /*version*/, const char* data,
                           std::size_t* size, void** state) {
    auto& server = *static_cast<Implementation*>(self);
    try {
      if (!*state) {
        *state = server.begin(connection, url, method).release();
        return server.continueEarly(*static_cast<Exchange*>(*state));
      }
      return server.proceed(*static_cast<Exchange*>(*state), {data, *size}, *size);
    } catch (const std::exception&) {
      return MHD_NO;  // no memory: the connection is closed
    }
  }

  static void completed(void* self, MHD_Connection* connection, void** state,
                        MHD_RequestTerminationCode /*reason*/) {
    delete static_cast<Exchange*>(*state);  // NOLINT(cppcoreguidelines-owning-memory)
    *state = nullptr;
    static_cast<Implementation*>(self)->setServed(connection, false);
  }

  static void connected(void* self, MHD_Connection* connection, void** /*socketState*/,
                        MHD_ConnectionNotificationCode what) {
    auto& server = *static_cast<Implementation*>(self);
    const std::lock_guard lock(server.mutex_);
    if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
      server.clients_.erase(connection);
      return;
    }
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    server.clients_[connection] = {info->connect_fd, Clock::now(), false};
  }

  std::unique_ptr<Exchange> begin(MHD_Connection* connection, const char* url, const char* method) {
    auto exchange = std::make_unique<Exchange>();
    exchange->connection = connection;
    auto& request = exchange->request;
    request.method = method;
    request.path = url;
    MHD_get_connection_values_n(
        connection, MHD_HEADER_KIND,
        [](void* to, MHD_ValueKind, const char* name, std::size_t nameSize, const char* value,
           std::size_t size) {
          static_cast<HttpRequest*>(to)->headers.emplace(
              lowered({name, nameSize}), std::string(value ? value : "", value ? size : 0));
          return MHD_YES;
        },
        &request);
    MHD_get_connection_values_n(
        connection, MHD_GET_ARGUMENT_KIND,
        [](void* to, MHD_ValueKind, const char* name, std::size_t nameSize, const char* value,
           std::size_t size) {
          static_cast<HttpRequest*>(to)->parameters.emplace_back(
              std::string(name, nameSize), std::string(value ? value : "", value ? size : 0));
          return MHD_YES;
        },
        &request);
    exchange->answer = refusal(request);
    return exchange;
  }

  std::optional<HttpAnswer> refusal(const HttpRequest& request) {
    {
      const std::lock_guard lock(mutex_);
      if (clients_.size() > mostConnections) {
        return plain(kServiceUnavailable, "too many connections; close other windows\n");
      }
    }
    auto refused = handlers_.refuse(request);
    if (refused) {
      refused->closes = true;
      return refused;
    }
    const auto length = request.header("content-length").value_or("0");
    const bool isLong =
        length.size() > 9 || std::atoll(length.c_str()) > std::int64_t{mostBodyBytes};
    if (isLong) return plain(kContentTooLarge, "the body is too long\n");
    return std::nullopt;
  }

  // A refused request is answered before its body is read.
  MHD_Result continueEarly(Exchange& exchange) {
    return exchange.answer ? send(exchange.connection, *exchange.answer, handlers_.headers)
                           : MHD_YES;
  }

  MHD_Result proceed(Exchange& exchange, std::string_view piece, std::size_t& size) {
    size = 0;
    if (!piece.empty()) {
      if (exchange.request.body.size() + piece.size() > mostBodyBytes) return MHD_NO;
      exchange.request.body += piece;
      return MHD_YES;
    }
    if (!exchange.answer) return enqueue(exchange);
    return send(exchange.connection, *exchange.answer, handlers_.headers);
  }

  MHD_Result enqueue(Exchange& exchange) {
    setServed(exchange.connection, true);
    auto& queue = lanes_[static_cast<std::size_t>(handlers_.laneOf(exchange.request))];
    const std::lock_guard lock(mutex_);
    if (isEnding_ || queue.waiting.size() >= mostWaiting) {
      auto busy = plain(kServiceUnavailable, "the server is busy\n");
      return send(exchange.connection, busy, handlers_.headers);
    }
    MHD_suspend_connection(exchange.connection);
    queue.waiting.push_back(&exchange);
    queue.hasWork.notify_one();
    return MHD_YES;
  }

  void setServed(MHD_Connection* connection, bool isServed) {
    const std::lock_guard lock(mutex_);
    const auto found = clients_.find(connection);
    if (found == clients_.end()) return;
    found->second.isServed = isServed;
    found->second.since = Clock::now();
  }

  void work(Queue& queue, std::size_t worker) {
    for (;;) {
      std::unique_lock lock(mutex_);
      queue.hasWork.wait(lock, [&] { return isEnding_ || !queue.waiting.empty(); });
      if (queue.waiting.empty()) return;
      auto& exchange = *queue.waiting.front();
      queue.waiting.pop_front();
      const bool isEnding = isEnding_;
      lock.unlock();
      exchange.answer = isEnding ? plain(kServiceUnavailable, "the server is ending\n")
                                 : handlers_.answer(exchange.request, worker);
      if (isEnding && exchange.answer->feed) exchange.answer->feed->close();
      MHD_resume_connection(exchange.connection);
    }
  }

  // Ends connections whose client takes too long for a request, or is idle for too long.
  void closeTheSlow() {
    std::unique_lock lock(mutex_);
    while (!ending_.wait_for(lock, std::chrono::seconds(1), [this] { return isEnding_; })) {
      const auto latest = Clock::now() - patience;
      for (const auto& [connection, client] : clients_) {
        if (!client.isServed && client.since < latest) ::shutdown(client.socket, SHUT_RDWR);
      }
    }
  }

  void stopThreads() {
    {
      const std::lock_guard lock(mutex_);
      isEnding_ = true;
    }
    ending_.notify_all();
    for (auto& queue : lanes_) queue.hasWork.notify_all();
    for (auto& thread : threads_) thread.join();
  }

  FileDescriptor socket_;
  Handlers handlers_;
  MHD_Daemon* daemon_ = nullptr;

  std::mutex mutex_;  // guards the members below
  std::array<Queue, kWorkers.size()> lanes_;
  std::map<MHD_Connection*, Client> clients_;
  bool isEnding_ = false;
  std::condition_variable ending_;

  std::vector<std::thread> threads_;
};

std::size_t HttpServer::workerCount() {
  std::size_t count = 0;
  for (const auto workers : kWorkers) count += workers;
  return count;
}

FileDescriptor HttpServer::bind(std::uint16_t port) {
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
  ::fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
  const int yes = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  constexpr int kBacklog = 64;
  const bool isBound =
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      ::listen(socket.get(), kBacklog) == 0;
  if (isBound) return socket;
  const int error = errno;
  socket.reset();
  errno = error;
  return {};
}

HttpServer::HttpServer(FileDescriptor socket, Handlers handlers)
    : implementation_(std::make_unique<Implementation>(std::move(socket), std::move(handlers))) {}

HttpServer::~HttpServer() = default;

}  // namespace viewer
