// SPDX-License-Identifier: MIT
// Compares the whole process `runeflow capture FILE` with a bare program: a loop that stores the
// same rows from memory with SQLite as it comes. Prints ratios of processor time and of wall time.
#include <fmt/format.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/bare.h"
#include "bench/dlt_messages.h"
#include "bench/measure.h"
#include "runeflow/decoders/dlt_decoder.h"
#include "runeflow/decoders/logcat_decoder.h"

using namespace runeflow;

namespace {

struct Cost {
  double processor;         // seconds
  double wall;              // seconds
  std::int64_t memory = 0;  // KiB, the peak of the process
};

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

Cost costOf(const std::function<void()>& work) {
  const double processor = bench::processorSeconds();
  const double wall = wallSeconds();
  work();
  return {bench::processorSeconds() - processor, wallSeconds() - wall};
}

// Returns the peak of a process in KiB, or 0 if it has ended. The peak that wait4() returns is that
// of this program, if it is larger.
std::int64_t peakMemory(pid_t process) {
  std::ifstream status(fmt::format("/proc/{}/status", process));
  std::string word;
  std::int64_t peak = 0;
  while (status >> word && word != "VmHWM:") continue;
  return status >> peak ? peak : 0;
}

// Runs the command and waits for its end. Ends this program if the command fails.
Cost costOfCommand(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const double start = wallSeconds();
  pid_t child = 0;
  int status = -1;
  rusage used{};
  std::int64_t memory = 0;
  if (::posix_spawn(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) == 0) {
    while (::wait4(child, &status, WNOHANG, &used) == 0) {
      memory = std::max(memory, peakMemory(child));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  if (status != 0) {
    fmt::print(stderr, "{} failed\n", fmt::join(words, " "));
    std::exit(1);
  }
  return {seconds(used.ru_utime) + seconds(used.ru_stime), wallSeconds() - start, memory};
}

void measure(const SourceDescriptor& descriptor, std::span<const std::uint8_t> bytes,
             RowDecoder&& decoder, int rounds) {
  const bench::Folder folder;
  const auto input = folder.file("input");
  const auto ours = folder.file("ours.db");
  const auto bare = folder.file("bare.db");
  std::ofstream(input, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  const auto rows = decoder.consume(bytes);
  std::vector<double> processor;
  std::vector<double> wall;
  std::int64_t memory = 0;
  for (int round = 0; round < rounds; ++round) {
    for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(ours + suffix);
    bench::createDatabase(bare, descriptor);
    Cost stored{};
    Cost captured{};
    const auto store = [&] { stored = costOf([&] { bench::insertBare(bare, rows); }); };
    if (round % 2 == 0) store();
    captured = costOfCommand({RUNEFLOW_COMMAND, "capture", input, "--db", ours});
    if (round % 2 == 1) store();
    processor.push_back(captured.processor / stored.processor);
    wall.push_back(captured.wall / stored.wall);
    memory = std::max(memory, captured.memory);
    fmt::print("{} pair {}: processor {:.2f} s, bare {:.2f} s; wall {:.2f} s, bare {:.2f} s\n",
               descriptor.id(), round + 1, captured.processor, stored.processor, captured.wall,
               stored.wall);
  }
  const auto count = EventStore::open(ours, false, descriptor)->count();
  fmt::print(
      "{} command: {} of {} rows; ratio of processor time {:.3f} ({:.3f} to {:.3f}), of wall time "
      "{:.3f} ({:.3f} to {:.3f}); {:.1f} MiB\n",
      descriptor.id(), count, rows.size(), bench::median(processor), std::ranges::min(processor),
      std::ranges::max(processor), bench::median(wall), std::ranges::min(wall),
      std::ranges::max(wall), static_cast<double>(memory) / 1024);
}

}  // namespace

int main(int argc, char** argv) {
  const int rows = bench::rowCount(1'000'000);
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
  if (rounds < 1) {
    fmt::print(stderr, "usage: {} [PAIRS]\n", argv[0]);
    return 2;
  }
  const auto now = [] { return Timestamp(std::chrono::duration<double>(1'700'000'000)); };
  const auto text = bench::logcatLines(rows);
  measure(SourceDescriptor::logcat(),
          {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, LogcatDecoder(now),
          rounds);
  measure(SourceDescriptor::dlt(), bench::DltRecording(static_cast<std::size_t>(rows)).bytes(),
          DLTDecoder(now), rounds);
}
