// SPDX-License-Identifier: MIT
/// \file
/// What all public headers share: the mark of the functions and classes that a shared library
/// exports, and a check of the compiler.
///
/// RUNEFLOW_EXPORT stands before everything that the library defines in its sources and a host may
/// use. Nothing else is visible outside the shared library. CMake generates its definition.
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
