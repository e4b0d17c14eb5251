// SPDX-License-Identifier: MIT

// Ships the records of a local database into the table of a fleet, in blocks and in seq order.
//
// The shipper asks the engine up to which seq the table has the capture. It counts the records of
// the newest block in the table and sends the block again unless it is complete. A record is
// identified by (capture, generation, seq); a new generation begins when the local database was
// cleared or replaced. If a record is sent twice, the engine drops one copy later, and reads of the
// table count it once.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "fleet/engine.h"
#include "fleet/insert_block.h"
#include "fleet/table.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/word_tokenizer.h"

namespace fleet {

struct ShipReport {
  std::int64_t records = 0;  // that the engine has confirmed
  std::int64_t blocks = 0;
  std::int64_t deleted = 0;  // by the size cap, before they were sent
  std::int64_t last = 0;     // the largest seq in the local database
  std::uint32_t generation = 0;
  bool wasInterrupted = false;
};

// What the shipper needs of its host. `say` and `wait` are also called on another thread.
struct ShipHooks {
  std::function<void(const std::string&)> say;      // a sentence for the user
  std::function<bool(int milliseconds)> wait;       // returns true if the user has interrupted
  std::function<void(const ShipReport&)> progress;  // after every block
};

// One capture on its way. Only one thread may use an object; it starts another one, which sends a
// block while the next is prepared.
class Shipper {
 public:
  // The store must have been opened for reads. The caller must keep all references alive.
  Shipper(Engine& engine, runeflow::EventStore& store, std::string path, std::string capture,
          ShipHooks hooks);
  ~Shipper();
  Shipper(const Shipper&) = delete;
  Shipper& operator=(const Shipper&) = delete;

  // Ships the stored records, and with `follows` also new ones until the user interrupts. While
  // records arrive slowly, sends at most one block in `milliseconds`. Throws host::Failure for an
  // error that waiting cannot mend.
  ShipReport run(bool follows, int milliseconds);

 private:
  // Which record stands at a seq.
  struct Mark {
    std::int64_t seq;
    std::uint64_t fingerprint;
    bool operator==(const Mark&) const = default;
  };

  static Mark markOf(const runeflow::FetchedRow& record);
  void resume();
  void continueBlock(std::int64_t first, std::int64_t last, std::uint32_t rows);
  void loop(bool follows, int milliseconds);
  bool isNewGeneration();
  bool isStored(const Mark& record);
  std::optional<InsertBlock> gather();
  std::optional<std::pair<Mark, Mark>> readBlock(BlockBuilder& builder);
  void skipDeleted(std::int64_t smallest);
  void noteDeleted(std::int64_t records);
  void send(const InsertBlock& block);
  std::int64_t countOf(std::uint32_t generation, const std::string& seqs);
  std::string whereGeneration(std::uint32_t generation) const;
  void finishSending();

  Engine& engine_;
  runeflow::EventStore& store_;
  std::string path_;
  std::string capture_;
  ShipHooks hooks_;
  runeflow::WordTokenizer tokenizer_;
  std::string insert_;

  std::uint32_t generation_ = 1;
  std::int64_t next_ = 1;                 // the seq to send next
  std::optional<Mark> newest_;            // the record before
  std::optional<std::int64_t> blockEnd_;  // of a block that is sent again
  struct Sent {
    std::uint32_t generation;
    std::uint32_t rows;
  };
  std::future<Sent> sending_;  // uses engine_ and nothing else that changes
  ShipReport report_;
};

// Returns the name of a capture unless the user gives one: HOST/FILE without the file's extension.
std::string defaultCaptureName(const std::string& path);

}  // namespace fleet
