// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "runeflow/platform/system_calls_p.h"

#if defined(__linux__) && !defined(RUNEFLOW_PORTABLE)
#define RUNEFLOW_LINUX 1
#else
#define RUNEFLOW_LINUX 0
#endif

namespace runeflow::system_calls {
namespace {

[[maybe_unused]] void closeOnExec(int fd) {
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

}  // namespace

bool openPipe(Pipe& pipe) {
  std::array<int, 2> ends{};
#if RUNEFLOW_LINUX
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
#else
  if (::pipe(ends.data()) != 0) return false;
  for (const int end : ends) closeOnExec(end);
#endif
  pipe.readEnd.reset(ends[0]);
  pipe.writeEnd.reset(ends[1]);
  return true;
}

int openSocket(int family, int type, int protocol) {
#if RUNEFLOW_LINUX
  return ::socket(family, type | SOCK_CLOEXEC, protocol);
#else
  const int fd = ::socket(family, type, protocol);
  if (fd < 0) return fd;
  closeOnExec(fd);
#ifdef SO_NOSIGPIPE
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  return fd;
#endif
}

ssize_t sendQuietly(int socket, std::string_view bytes) {
#ifdef MSG_NOSIGNAL  // POSIX 2008; systems without it have SO_NOSIGPIPE
  return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
#else
  return ::send(socket, bytes.data(), bytes.size(), 0);
#endif
}

void nameThisThread([[maybe_unused]] const char* name) {
#if defined(__APPLE__)
  ::pthread_setname_np(name);
#elif RUNEFLOW_LINUX
  ::pthread_setname_np(::pthread_self(), name);
#endif
}

void makeThisThreadBackground() {
#if defined(__APPLE__)
  ::pthread_set_qos_class_self_np(QOS_CLASS_UTILITY, 0);
#elif RUNEFLOW_LINUX
  constexpr int kUtilityNiceness = 10;
  // On Linux, niceness is a property of the thread. Elsewhere it belongs to the whole process,
  // whose priority the library must not change.
  const auto thread = static_cast<id_t>(::gettid());
  if (::getpriority(PRIO_PROCESS, thread) < kUtilityNiceness) {
    ::setpriority(PRIO_PROCESS, thread, kUtilityNiceness);
  }
#endif
}

std::int64_t modificationTime(const struct stat& status) {
#if defined(__APPLE__)
  const auto& time = status.st_mtimespec;
#else
  const auto& time = status.st_mtim;  // POSIX 2008
#endif
  constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
  return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

}  // namespace runeflow::system_calls
