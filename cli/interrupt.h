// SPDX-License-Identifier: MIT

// Ctrl-C as an event that a loop can wait for.
#pragma once

#include "runeflow/platform/file_descriptor.h"

namespace cli {

// While an object exists, SIGINT, SIGTERM and SIGHUP do not end the process; they make fd()
// readable. A SIGHUP that the process was started to ignore stays ignored. The caller must
// construct it before other threads start, because they inherit the blocked signals.
class Interrupt {
 public:
  Interrupt();

  int fd() const { return fd_.get(); }
  bool isRequested() const;

  // Waits for the interrupt for at most `milliseconds`. Returns false if it has not come.
  bool waitFor(int milliseconds) const;

  // Lets the signals end the process again, for work that a second Ctrl-C may abandon.
  void restoreSignals() const;

  // Between these two, the signals end the process at once, also one that came before.
  void unblockSignals() const;
  void blockSignals() const;

 private:
  runeflow::FileDescriptor fd_;
};

}  // namespace cli
