// One lambda per case for std::visit; a case without its lambda fails to compile.
#pragma once

namespace runeflow {

template <class... Cases>
struct overloaded : Cases... {
  using Cases::operator()...;
};

}  // namespace runeflow
