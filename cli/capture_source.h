// The byte streams that `capture` reads: files, standard input, a DLT daemon, the adb server.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "interrupt.h"
#include "runeflow/platform/file_descriptor.h"

namespace cli {

// An open stream, and what has been read from it already to recognise it.
struct Stream {
  runeflow::FileDescriptor fd;
  std::string name;  // as messages call it
  std::string kind;  // "logcat" or "dlt"
  std::vector<std::uint8_t> head = {};
  std::optional<std::int64_t> size = std::nullopt;  // bytes, of a regular file
};

// Opens a file, or standard input for "-". `format` names its kind; empty means by its first bytes.
Stream openFile(const std::string& path, const std::string& format);

// `target` is HOST[:PORT], an IPv6 address in brackets when a port follows.
Stream connectToDlt(const std::string& target);

// Picks the device of that serial, or the most likely one when none is given, and says which.
Stream connectToAdb(const std::string& target, const std::string& serial,
                    const std::string& command);

enum class StreamEnd {
  ended,
  interrupted,  // by the user
  failed,       // the stream could not be read on; errno of the read in Pumped
  readerGone    // nobody takes the bytes any more
};

struct Pumped {
  StreamEnd end;
  int error = 0;
};

// Moves bytes from the stream into `sink`, which blocks, until one of them ends or the user
// interrupts. `tick` is called a few times a second and after every piece.
Pumped pump(Stream& stream, int sink, const Interrupt& interrupt,
            const std::function<void()>& tick);

}  // namespace cli
