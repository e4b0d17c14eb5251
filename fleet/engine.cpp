// SPDX-License-Identifier: MIT

#include "fleet/engine.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

namespace fleet {
namespace {

constexpr std::size_t kLongestAnswer = std::size_t{64} << 20U;  // bytes, of ask()
constexpr std::size_t kLongestErrorText = 2'000;                // bytes
constexpr long kConnectSeconds = 10;
constexpr long kInsertSeconds = 120;
constexpr long kNoLimit = 0;

void initialiseOnce() {
  [[maybe_unused]] static const auto result = ::curl_global_init(CURL_GLOBAL_DEFAULT);
}

// Codes of the engine after which the same statement may succeed: timeouts, lost connections
// between servers, too many queries or parts, no memory, no space on the disk (75, 243), a table or
// its keeper that is not ready.
bool isTransientCode(int code) {
  constexpr int kCodes[] = {3,   32,  33,  75,  95,  96,  159, 160, 198, 201, 202, 203, 209, 210,
                            225, 236, 241, 242, 243, 244, 252, 279, 285, 286, 319, 394, 425, 999};
  return std::ranges::find(kCodes, code) != std::end(kCodes);
}

// An error of the engine: "Code: 60, e.displayText() = DB::Exception: Table … doesn't exist,
// e.what() = DB::Exception", or in later releases "Code: 60. DB::Exception: … (UNKNOWN_TABLE)".
struct EngineText {
  int code = 0;
  std::string text;

  explicit EngineText(std::string_view answer) {
    constexpr std::string_view kCode = "Code: ";
    constexpr std::string_view kException = "Exception: ";  // of DB, DB::Net, DB::Errno or Poco
    constexpr std::string_view kWhat = ", e.what() =";
    if (const auto at = answer.find(kCode); at != std::string_view::npos) {
      const auto* digits = answer.data() + at + kCode.size();
      std::from_chars(digits, answer.data() + answer.size(), code);
    }
    if (const auto at = answer.find(kException); at != std::string_view::npos) {
      answer.remove_prefix(at + kException.size());
    }
    answer = answer.substr(0, std::min(answer.rfind(kWhat), answer.size()));
    while (answer.ends_with('\n') || answer.ends_with(' ')) answer.remove_suffix(1);
    const bool isLong = answer.size() > kLongestErrorText;
    text = answer.substr(0, kLongestErrorText);
    if (isLong) text += " …";
  }
};

// What to do about an error of the engine.
std::string_view adviceFor(int code) {
  switch (code) {
    case 10:  // NOT_FOUND_COLUMN_IN_BLOCK
    case 16:  // NO_SUCH_COLUMN_IN_TABLE
    case 47:  // UNKNOWN_IDENTIFIER
      return "; was it created by runeflow ship --create?";
    case 60:  // UNKNOWN_TABLE
      return "; runeflow ship --create creates it";
    case 81:  // UNKNOWN_DATABASE
      return "; create the database first";
    case 170:  // BAD_GET
    case 701:  // CLUSTER_DOESNT_EXIST
      return "; clusters are defined in the configuration of the servers";
    case 192:  // UNKNOWN_USER
    case 193:  // WRONG_PASSWORD
    case 194:  // REQUIRED_PASSWORD
    case 516:  // AUTHENTICATION_FAILED
      return "; set RUNEFLOW_USER and RUNEFLOW_PASSWORD, or RUNEFLOW_LOGIN_FILE";
    default:
      return "";
  }
}

// What to do about an error of libcurl.
std::string_view adviceFor(CURLcode result) {
  switch (result) {
    case CURLE_PEER_FAILED_VERIFICATION:
      return "; RUNEFLOW_CA_FILE names a file of certificates to trust";
    case CURLE_SSL_CACERT_BADFILE:
      return "; RUNEFLOW_CA_FILE must name a file of certificates in PEM format";
    default:
      return "";
  }
}

bool isTransientResult(CURLcode result) {
  switch (result) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PARTIAL_FILE:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return true;
    default:  // libcurl has a hundred others, none of which passes by waiting
      return false;
  }
}

// What the callbacks of one transfer share.
struct Transfer {
  const Engine::OnPiece& onPiece;
  const std::function<bool()>& isInterrupted;
  CURL* handle;
  std::string errorAnswer = {};
  std::exception_ptr failure = nullptr;  // exceptions must not pass through libcurl
  bool wasInterrupted = false;
};

std::size_t receive(char* bytes, std::size_t, std::size_t size, void* pointer) {
  auto& transfer = *static_cast<Transfer*>(pointer);
  const std::string_view piece(bytes, size);
  long status = 0;
  ::curl_easy_getinfo(transfer.handle, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) {
    const auto room = 2 * kLongestErrorText - transfer.errorAnswer.size();
    transfer.errorAnswer += piece.substr(0, room);
    return size;
  }
  try {
    transfer.onPiece(piece);
  } catch (...) {
    transfer.failure = std::current_exception();
    return 0;
  }
  return size;
}

int progressed(void* pointer, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto& transfer = *static_cast<Transfer*>(pointer);
  transfer.wasInterrupted = transfer.isInterrupted && transfer.isInterrupted();
  return transfer.wasInterrupted ? 1 : 0;
}

}  // namespace

struct Engine::Connection {
  CURL* handle = ::curl_easy_init();
  std::array<char, CURL_ERROR_SIZE> errorText{};

  Connection() = default;
  ~Connection() { ::curl_easy_cleanup(handle); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
};

Engine::Engine(Address address, Login login, std::function<bool()> isInterrupted)
    : address_(std::move(address)),
      login_(std::move(login)),
      isInterrupted_(std::move(isInterrupted)) {
  initialiseOnce();
  connection_ = std::make_unique<Connection>();
  if (!connection_->handle) host::fail("cannot start libcurl");
}

Engine::~Engine() = default;

std::string Engine::escapedForUrl(const std::string& text) const {
  const std::unique_ptr<char, decltype(&::curl_free)> escaped(
      ::curl_easy_escape(connection_->handle, text.data(), static_cast<int>(text.size())),
      ::curl_free);
  return escaped ? escaped.get() : "";
}

std::string Engine::ask(const std::string& statement) {
  std::string answer;
  perform("?wait_end_of_query=1", statement, kInsertSeconds, [&](std::string_view piece) {
    if (answer.size() + piece.size() > kLongestAnswer) {
      host::fail("{}: the answer is longer than expected", address_.server);
    }
    answer += piece;
  });
  return answer;
}

void Engine::stream(const std::string& statement, const OnPiece& onPiece) {
  perform("?wait_end_of_query=1", statement, kNoLimit, onPiece);
}

void Engine::insert(const std::string& statement, std::string_view rows) {
  perform("?insert_distributed_sync=1&query=" + escapedForUrl(statement), rows, kInsertSeconds,
          [](std::string_view) {});
}

void Engine::perform(const std::string& urlArguments, std::string_view body, long mostSeconds,
                     const OnPiece& onPiece) {
  CURL* const handle = connection_->handle;
  ::curl_easy_reset(handle);  // keeps the connection
  Transfer transfer{.onPiece = onPiece, .isInterrupted = isInterrupted_, .handle = handle};
  const auto set = [handle](CURLoption option, auto value) {
    if (::curl_easy_setopt(handle, option, value) != CURLE_OK) {
      host::fail("this libcurl lacks an option that is needed ({})", static_cast<int>(option));
    }
  };
  const auto url = address_.server + "/" + urlArguments;
  // An empty value removes the header that makes libcurl ask first whether it may send a long body.
  const std::unique_ptr<curl_slist, decltype(&::curl_slist_free_all)> headers(
      ::curl_slist_append(nullptr, "Expect:"), ::curl_slist_free_all);
  connection_->errorText[0] = '\0';
  set(CURLOPT_URL, url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTPHEADER, headers.get());
  set(CURLOPT_POSTFIELDS, body.data());
  set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  set(CURLOPT_TIMEOUT, mostSeconds);
  set(CURLOPT_TCP_KEEPALIVE, 1L);  // detects a server that is gone without closing the connection
  set(CURLOPT_TCP_KEEPIDLE, 20L);
  set(CURLOPT_TCP_KEEPINTVL, 10L);
  set(CURLOPT_ERRORBUFFER, connection_->errorText.data());
  set(CURLOPT_WRITEFUNCTION, &receive);
  set(CURLOPT_WRITEDATA, static_cast<void*>(&transfer));
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFOFUNCTION, &progressed);
  set(CURLOPT_XFERINFODATA, static_cast<void*>(&transfer));
  if (!login_.user.empty() || !login_.password.empty()) {
    set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    set(CURLOPT_USERNAME, login_.user.empty() ? "default" : login_.user.c_str());
    set(CURLOPT_PASSWORD, login_.password.c_str());
  }
  if (!login_.authorities.empty()) set(CURLOPT_CAINFO, login_.authorities.c_str());

  const auto result = ::curl_easy_perform(handle);
  if (transfer.failure) std::rethrow_exception(transfer.failure);
  if (transfer.wasInterrupted) throw Interrupted();
  if (result != CURLE_OK) {
    const std::string_view detail = connection_->errorText.data();
    const std::string text(detail.empty() ? ::curl_easy_strerror(result) : detail);
    throw EngineError(fmt::format("{}: {}{}", address_.server, text, adviceFor(result)), text,
                      isTransientResult(result));
  }
  long status = 0;
  ::curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (status == 200) return;
  const EngineText error(transfer.errorAnswer);
  const bool isProxyOrStart = error.code == 0 && (status == 502 || status == 503 || status == 504);
  throw EngineError(error.text.empty() ? fmt::format("{}: HTTP status {}", address_.server, status)
                                       : fmt::format("{}: {}{}", address_.server, error.text,
                                                     adviceFor(error.code)),
                    error.text, isProxyOrStart || isTransientCode(error.code));
}

void retrying(const std::function<void()>& attempt,
              const std::function<void(const std::string&)>& say,
              const std::function<bool(int milliseconds)>& wait) {
  constexpr int kLongestWait = 30;  // seconds
  for (int seconds = 1;; seconds = std::min(2 * seconds, kLongestWait)) {
    try {
      return attempt();
    } catch (const EngineError& error) {
      if (!error.isTransient()) throw;
      say(fmt::format("{}; trying again in {} s", error.what(), seconds));
    }
    if (wait(1'000 * seconds)) throw Interrupted();
  }
}

}  // namespace fleet
