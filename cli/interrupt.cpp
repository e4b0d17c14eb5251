// SPDX-License-Identifier: MIT
#include "interrupt.h"

#include <poll.h>

#include <array>
#include <csignal>

#if defined(__linux__) && !defined(RUNEFLOW_PORTABLE)
#include <sys/signalfd.h>
#define RUNEFLOW_HAS_SIGNALFD 1
#else
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#define RUNEFLOW_HAS_SIGNALFD 0
#endif

namespace cli {
namespace {

constexpr std::array kEndingSignals{SIGINT, SIGTERM, SIGHUP};

}  // namespace

#if RUNEFLOW_HAS_SIGNALFD

namespace {

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kEndingSignals) {
    // nohup has the process ignore SIGHUP, and a descriptor for signals would receive it all the
    // same.
    struct sigaction action{};
    ::sigaction(signal, nullptr, &action);
    if (signal != SIGHUP || action.sa_handler != SIG_IGN) sigaddset(&signals, signal);
  }
  return signals;
}

}  // namespace

Interrupt::Interrupt() {
  blockSignals();
  const sigset_t signals = endingSignals();
  fd_.reset(::signalfd(-1, &signals, SFD_CLOEXEC));
}

void Interrupt::restoreSignals() const {
  signalfd_siginfo taken{};
  while (isRequested()) {
    if (::read(fd_.get(), &taken, sizeof taken) <= 0) break;
  }
  unblockSignals();
}

void Interrupt::unblockSignals() const {
  const sigset_t signals = endingSignals();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void Interrupt::blockSignals() const {
  const sigset_t signals = endingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

#else

// A handler writes the number of its signal into a pipe, whose other end is fd().
namespace {

volatile std::sig_atomic_t writeEnd = -1;

void writeSignal(int signal) {
  const int before = errno;
  const auto number = static_cast<unsigned char>(signal);
  [[maybe_unused]] const auto written = ::write(writeEnd, &number, 1);
  errno = before;
}

// Leaves SIGHUP ignored if nohup has the process ignore it.
void handleWith(void (*handler)(int)) {
  for (const int signal : kEndingSignals) {
    struct sigaction action{};
    ::sigaction(signal, nullptr, &action);
    if (signal == SIGHUP && action.sa_handler == SIG_IGN) continue;
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    ::sigaction(signal, &action, nullptr);
  }
}

}  // namespace

Interrupt::Interrupt() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) return;
  for (const int end : ends) {
    ::fcntl(end, F_SETFD, FD_CLOEXEC);
    ::fcntl(end, F_SETFL, O_NONBLOCK);
  }
  fd_.reset(ends[0]);
  writeEnd = ends[1];  // stays open: a handler may still run while the process exits
  blockSignals();
}

void Interrupt::restoreSignals() const {
  for (char taken = 0; ::read(fd_.get(), &taken, 1) == 1;) {
  }
  handleWith(SIG_DFL);
}

void Interrupt::unblockSignals() const {
  handleWith(SIG_DFL);
  unsigned char signal = 0;
  if (::read(fd_.get(), &signal, 1) == 1) ::raise(signal);
}

void Interrupt::blockSignals() const {
  handleWith(writeSignal);
}

#endif

bool Interrupt::isRequested() const {
  return waitFor(0);
}

bool Interrupt::waitFor(int milliseconds) const {
  pollfd waiting{.fd = fd_.get(), .events = POLLIN, .revents = 0};
  return ::poll(&waiting, 1, milliseconds) > 0;
}

}  // namespace cli
