// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include "runeflow/platform/process_p.h"
#include "runeflow/platform/system_calls_p.h"

extern char** environ;  // POSIX: the program declares it

namespace runeflow {
namespace {

constexpr const char* kNullDevice = "/dev/null";

// The attributes of a new child: its three standard descriptors, and the signal settings that a
// newly started program expects. Each step can run out of memory. If one fails, spawn() starts
// nothing.
class SpawnPlan {
 public:
  // Makes `output` the child's standard output, or the null device if `output` is negative.
  explicit SpawnPlan(int output) {
    add(::posix_spawn_file_actions_init(&actions_));
    add(::posix_spawnattr_init(&attributes_));
    // Standard output comes first: if the host has closed its own standard descriptors, `output`
    // may be 0 or 2, and opening the null device there would close it.
    add(output < 0 ? open(STDOUT_FILENO)
                   : ::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
    add(open(STDIN_FILENO));
    add(open(STDERR_FILENO));
    int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#if defined(__APPLE__)
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;  // every descriptor without a file action
#elif defined(__linux__) && !defined(RUNEFLOW_PORTABLE)
    add(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
#endif  // elsewhere the child inherits the host's descriptors that are not close-on-exec

    // Without these settings the child would inherit the calling thread's signal mask, which may
    // block every signal, and would ignore SIGPIPE if the host does.
    sigset_t none;
    ::sigemptyset(&none);
    sigset_t brokenPipe;
    ::sigemptyset(&brokenPipe);
    ::sigaddset(&brokenPipe, SIGPIPE);
    add(::posix_spawnattr_setsigmask(&attributes_, &none));
    add(::posix_spawnattr_setsigdefault(&attributes_, &brokenPipe));
    add(::posix_spawnattr_setflags(&attributes_, static_cast<short>(flags)));
  }
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  // Returns the child's process id, or nothing if it cannot be started.
  std::optional<pid_t> spawn(const std::string& program,
                             const std::vector<std::string>& arguments) const {
    if (!complete_) return std::nullopt;
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int error =
        ::posix_spawn(&pid, program.c_str(), &actions_, &attributes_, argv.data(), environ);
    return error == 0 ? std::optional(pid) : std::nullopt;
  }

 private:
  int open(int descriptor) {
    return ::posix_spawn_file_actions_addopen(&actions_, descriptor, kNullDevice, O_RDWR, 0);
  }
  void add(int error) { complete_ = complete_ && error == 0; }

  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
  bool complete_ = true;
};

// A running child. The destructor waits for it, which leaves no zombie process behind.
class ChildProcess {
 public:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  ~ChildProcess() { wait(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Blocks until the child has ended and returns its exit status. Returns nothing if it did not
  // exit normally, and from the second call on.
  std::optional<int> wait() {
    const pid_t pid = std::exchange(pid_, 0);
    if (pid == 0) return std::nullopt;
    int status = 0;
    pid_t ended = 0;
    do {
      ended = ::waitpid(pid, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == pid && WIFEXITED(status) ? std::optional(WEXITSTATUS(status)) : std::nullopt;
  }

 private:
  pid_t pid_;
};

std::vector<std::uint8_t> readToEnd(int fd) {
  std::vector<std::uint8_t> bytes;
  std::array<std::uint8_t, 65'536> chunk;  // the capacity of a Linux pipe
  for (;;) {
    const ssize_t count = ::read(fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return bytes;
    bytes.insert(bytes.end(), chunk.data(), chunk.data() + count);
  }
}

}  // namespace

std::optional<ProcessResult> runProcess(const std::string& program,
                                        const std::vector<std::string>& arguments,
                                        StandardOutput standardOutput) {
  system_calls::Pipe pipe;
  if (standardOutput == StandardOutput::captured && !system_calls::openPipe(pipe)) {
    return std::nullopt;
  }
  const auto pid = SpawnPlan(pipe.writeEnd.get()).spawn(program, arguments);
  if (!pid) return std::nullopt;
  ChildProcess child(*pid);
  ProcessResult result;
  if (pipe.readEnd) {
    pipe.writeEnd.reset();  // while a write end is open here, read() never reports the end
    result.output = readToEnd(pipe.readEnd.get());
  }
  result.exitStatus = child.wait();
  return result;
}

}  // namespace runeflow
