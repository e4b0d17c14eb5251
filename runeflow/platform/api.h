// SPDX-License-Identifier: MIT
/// \file
/// What all public headers share: the macro RUNEFLOW_EXPORT, and a check of the compiler.
///
/// RUNEFLOW_EXPORT marks the functions and classes that the library defines in its sources and that
/// a host (a program that uses the library) may use. A shared library exports only these. CMake
/// generates the definition of the macro.
#pragma once

#include <version>

#include "runeflow/platform/export.h"

// The first error that a compiler without C++23 reports. Without it, the first would be "expected
// is not a member of std", which does not say what to do.
#if __cplusplus < 202100L
#error "RuneflowCore's headers need C++23: compile with -std=c++23 (CMake: cxx_std_23)"
#elif !defined(__cpp_lib_expected)
#error "RuneflowCore's headers need std::expected: use libstdc++ 12, libc++ 16 or later"
#endif
