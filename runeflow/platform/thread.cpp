// SPDX-License-Identifier: MIT
#include <pthread.h>

#include <csignal>
#include <memory>
#include <utility>

#include "runeflow/platform/system_calls_p.h"
#include "runeflow/platform/thread_p.h"

namespace runeflow {
namespace {

using Body = UniqueFunction<void()>;

constexpr std::size_t kLongestName = 15;

struct Attributes {
  pthread_attr_t value{};
  Attributes() { pthread_attr_init(&value); }
  ~Attributes() { pthread_attr_destroy(&value); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
};

// Returns all signals except those that a thread's own faults raise.
sigset_t asynchronousSignals() {
  sigset_t signals;
  sigfillset(&signals);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
    sigdelset(&signals, fault);
  }
  return signals;
}

struct Start {
  std::string name;
  Body body;
};

void* runBody(void* argument) {
  const std::unique_ptr<Start> start(static_cast<Start*>(argument));
  system_calls::nameThisThread(start->name.c_str());
  start->body();
  return nullptr;
}

}  // namespace

bool startThread(const ThreadAttributes& attributes, Body& body) {
  Attributes native;
  const sigset_t blocked = asynchronousSignals();
  pthread_attr_setdetachstate(&native.value, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&native.value, attributes.stackSize);

  auto start = std::make_unique<Start>(attributes.name.substr(0, kLongestName), std::move(body));
  pthread_t thread{};
  // The new thread inherits the mask of its creator.
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  const int error = pthread_create(&thread, &native.value, runBody, start.get());
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error != 0) {
    body = std::move(start->body);
    return false;
  }
  [[maybe_unused]] const auto* const ownedByTheThread = start.release();
  return true;
}

}  // namespace runeflow
