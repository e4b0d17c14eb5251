// SPDX-License-Identifier: MIT

// A pipe whose ends are closed on exec.
#pragma once

#include "runeflow/platform/file_descriptor.h"

namespace host {

struct Pipe {
  runeflow::FileDescriptor readEnd;
  runeflow::FileDescriptor writeEnd;
};

// Throws a Failure if the system has no more pipes. A program that another thread starts at the
// same moment can inherit the ends; the library starts its programs without them.
Pipe openPipe();

}  // namespace host
