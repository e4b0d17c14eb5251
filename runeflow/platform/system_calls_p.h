// SPDX-License-Identifier: MIT

// System calls whose best form differs between Linux and other POSIX systems. On Linux they use its
// extensions. Elsewhere, and if the build defines RUNEFLOW_PORTABLE, they use what POSIX and the
// BSDs have.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string_view>

#include "runeflow/platform/file_descriptor.h"

namespace runeflow::system_calls {

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

// Opens a pipe whose ends are closed on exec. Returns false and sets errno if that fails. Without
// pipe2(), a program that another thread starts at the same moment can inherit the ends.
bool openPipe(Pipe& pipe);

// Returns a socket that is closed on exec and raises no SIGPIPE, or -1 with errno.
int openSocket(int family, int type, int protocol);

// send(2) on a socket of openSocket() or accept(2). Raises no SIGPIPE if the peer has closed the
// connection.
ssize_t sendQuietly(int socket, std::string_view bytes);

// Names the calling thread, for debuggers and `ps`.
void nameThisThread(const char* name);

// Lowers the priority of the calling thread to that of background work. Does not raise it. A
// failure is ignored.
void makeThisThreadBackground();

// Returns the time of the last change of a file's contents, in nanoseconds since 1970.
std::int64_t modificationTime(const struct stat& status);

}  // namespace runeflow::system_calls
