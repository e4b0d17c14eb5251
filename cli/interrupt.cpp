// SPDX-License-Identifier: MIT
#include "interrupt.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>

namespace cli {
namespace {

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  // nohup has the process ignore it, and a descriptor for signals would receive it all the same.
  struct sigaction atHangup{};
  ::sigaction(SIGHUP, nullptr, &atHangup);
  if (atHangup.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
  return signals;
}

}  // namespace

Interrupt::Interrupt() {
  blockSignals();
  const sigset_t signals = endingSignals();
  fd_.reset(::signalfd(-1, &signals, SFD_CLOEXEC));
}

bool Interrupt::isRequested() const {
  return waitFor(0);
}

bool Interrupt::waitFor(int milliseconds) const {
  pollfd waiting{.fd = fd_.get(), .events = POLLIN, .revents = 0};
  return ::poll(&waiting, 1, milliseconds) > 0;
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

}  // namespace cli
