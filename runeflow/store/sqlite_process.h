// SPDX-License-Identifier: MIT
/// \file
/// Settings of SQLite that apply to the whole process. The library itself changes only the settings
/// of its own connections. The host (the program that uses the library) decides about the others,
/// because it may use SQLite for other purposes, too.
#pragma once

#include "runeflow/platform/api.h"

namespace runeflow {

/// Turns off the statistics that SQLite keeps of its memory (SQLITE_CONFIG_MEMSTATUS). They take a
/// lock in every allocation and release, which is a few per cent of the time of a capture. Without
/// them, sqlite3_memory_used() and sqlite3_memory_highwater() return 0 and
/// sqlite3_soft_heap_limit64() limits nothing, in the whole process.
///
/// Must be called before the process uses SQLite for the first time, and not while another thread
/// uses it: at the start of main(). Returns false, and changes nothing, if SQLite is in use
/// already.
RUNEFLOW_EXPORT bool turnOffSQLiteMemoryStatistics();

}  // namespace runeflow
