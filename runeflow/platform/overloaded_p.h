// SPDX-License-Identifier: MIT

// A visitor for std::visit made of one lambda per alternative. The program does not compile if an
// alternative has no lambda.
#pragma once

namespace runeflow {

template <class... Cases>
struct overloaded : Cases... {
  using Cases::operator()...;
};

}  // namespace runeflow
