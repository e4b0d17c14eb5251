// Ctrl-C as something to wait for instead of something that strikes.
#pragma once

#include "runeflow/platform/file_descriptor.h"

namespace cli {

// From its making on, SIGINT and SIGTERM no longer end the process but make fd() readable. Made
// before other threads start, so that they inherit the blocked signals.
class Interrupt {
 public:
  Interrupt();

  int fd() const { return fd_.get(); }
  bool isRequested() const;

  // Waits until the interrupt comes or the time is over; true when it came.
  bool waitFor(int milliseconds) const;

  // From now on the signals end the process again: what is left to do may be given up.
  void restoreSignals() const;

 private:
  runeflow::FileDescriptor fd_;
};

}  // namespace cli
