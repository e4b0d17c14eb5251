#include "runeflow/platform/background.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <system_error>
#include <thread>

namespace runeflow {
namespace {

// Keeps signals from the calling thread, and from the threads it starts, while it lives. Those that
// report a fault of the thread itself stay, for the host's crash handlers.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    ::sigfillset(&blocked);
    for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
      ::sigdelset(&blocked, fault);
    }
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before_);
  }
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

void becomeUtilityThread() {
  constexpr int kUtilityNiceness = 10;
  ::pthread_setname_np(::pthread_self(), "runeflow.worker");
  // On Linux niceness belongs to the thread. Best effort: the work is done either way.
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kUtilityNiceness);
}

}  // namespace

bool runInBackground(std::move_only_function<void()> work) {
  const SignalsBlocked inherited;
  try {
    std::thread([work = std::move(work)]() mutable {
      becomeUtilityThread();
      work();
    }).detach();
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

}  // namespace runeflow
