// SPDX-License-Identifier: MIT

#include <chrono>

#include "commands.h"
#include "fleet/engine.h"
#include "fleet/shipper.h"
#include "fleet/table.h"
#include "host/database.h"
#include "host/failure.h"
#include "interrupt.h"
#include "output.h"
#include "terminal.h"

namespace cli {
namespace {

constexpr std::size_t kLongestName = 256;  // bytes

void create(fleet::Engine& engine, const ShipOptions& options) {
  const auto created = fleet::createTable(engine, options.cluster);
  if (created.isOnThisServerOnly) {
    say("{} has no ZooKeeper, so the tables were made on this server only; run --create with the "
        "address of every other server of the cluster '{}', too",
        engine.address().server, options.cluster);
  }
}

// A line on standard error that tells how far the shipping is. Only on a terminal.
class ShipProgress {
 public:
  void show(const fleet::ShipReport& report) {
    if (!showsColour(stderr)) return;
    writeError(fmt::format("\r{} shipped, seq up to {}\x1b[K", counted(report.records, "record"),
                           report.last));
    isShown_ = true;
  }
  void erase() {
    if (isShown_) writeError("\r\x1b[K");
    isShown_ = false;
  }

 private:
  bool isShown_ = false;
};

void summarise(const fleet::ShipReport& report, const std::string& capture, double seconds) {
  const auto rate = seconds > 0 ? static_cast<double>(report.records) / seconds : 0;
  const auto deleted = report.deleted > 0
                           ? fmt::format(", {} deleted before they were sent", report.deleted)
                           : std::string();
  say("{} of '{}' in {:.1f} s, {:.0f} records/s, {}{}", counted(report.records, "record"), capture,
      seconds, rate, counted(report.blocks, "block"), deleted);
}

int shipRecords(fleet::Engine& engine, const ShipOptions& options, const Interrupt& interrupt) {
  auto store = host::openDatabase(options.database, options.source);
  const auto capture =
      options.capture.empty() ? fleet::defaultCaptureName(options.database) : options.capture;
  if (capture.size() > kLongestName) {
    host::fail("the name of a capture has at most {} bytes", kLongestName);
  }
  ShipProgress progress;
  fleet::Shipper shipper(
      engine, store, options.database, capture,
      {.say = [](const std::string& sentence) { say("{}", sentence); },
       .wait = [&](int milliseconds) { return interrupt.waitFor(milliseconds); },
       .progress = [&](const fleet::ShipReport& report) { progress.show(report); }});
  const auto start = std::chrono::steady_clock::now();
  const auto report = shipper.run(options.follows, options.everyMilliseconds);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  progress.erase();
  summarise(report, capture, seconds.count());
  return 0;
}

}  // namespace

int ship(const ShipOptions& options) {
  if (!options.creates && options.database.empty()) {
    host::fail("name the database to ship; only --create works without one");
  }
  if (!options.cluster.empty() && !options.creates) {
    host::fail("--cluster needs --create; an existing table knows its cluster");
  }
  const Interrupt interrupt;
  fleet::Engine engine(fleet::parseAddress(options.table), fleet::readLogin(),
                       [&] { return interrupt.isRequested(); });
  if (options.creates) create(engine, options);
  return options.database.empty() ? 0 : shipRecords(engine, options, interrupt);
}

}  // namespace cli
