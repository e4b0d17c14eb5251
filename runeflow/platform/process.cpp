#include <fcntl.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include "runeflow/platform/file_descriptor.h"
#include "runeflow/platform/process_p.h"

namespace runeflow {
namespace {

constexpr const char* kNullDevice = "/dev/null";

// How a child is started: its three standard descriptors, and signals as a fresh program expects
// them. Every step may fail for want of memory; a child is not started on half of them.
class SpawnPlan {
 public:
  // `output` becomes standard output; -1 for the null device.
  explicit SpawnPlan(int output) {
    add(::posix_spawn_file_actions_init(&actions_));
    add(::posix_spawnattr_init(&attributes_));
    // Standard output first: in a host that has closed its own descriptors, `output` may be 0 or 2.
    add(output < 0 ? open(STDOUT_FILENO)
                   : ::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
    add(open(STDIN_FILENO));
    add(open(STDERR_FILENO));
    add(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));

    // The calling thread may have blocked every signal, and the host may ignore SIGPIPE; a child
    // would inherit both.
    sigset_t none;
    ::sigemptyset(&none);
    sigset_t brokenPipe;
    ::sigemptyset(&brokenPipe);
    ::sigaddset(&brokenPipe, SIGPIPE);
    add(::posix_spawnattr_setsigmask(&attributes_, &none));
    add(::posix_spawnattr_setsigdefault(&attributes_, &brokenPipe));
    add(::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
  }
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  // The child's id; absent when it cannot be started.
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

// A started child, which is waited for at the latest when this object dies: no zombie stays behind.
class ChildProcess {
 public:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  ~ChildProcess() { wait(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Blocks until the child has ended. The status of a normal exit; absent otherwise, and the second
  // time.
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

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

std::optional<Pipe> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  return Pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

std::vector<std::uint8_t> readToEnd(int fd) {
  std::vector<std::uint8_t> bytes;
  std::array<std::uint8_t, 65'536> chunk;  // what a pipe holds
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
  Pipe pipe;
  if (standardOutput == StandardOutput::captured) {
    auto made = makePipe();
    if (!made) return std::nullopt;
    pipe = std::move(*made);
  }
  const auto pid = SpawnPlan(pipe.writeEnd.get()).spawn(program, arguments);
  if (!pid) return std::nullopt;
  ChildProcess child(*pid);
  ProcessResult result;
  if (pipe.readEnd) {
    pipe.writeEnd.reset();  // or the end would never come
    result.output = readToEnd(pipe.readEnd.get());
  }
  result.exitStatus = child.wait();
  return result;
}

}  // namespace runeflow
