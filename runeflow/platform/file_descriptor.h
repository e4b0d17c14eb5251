// SPDX-License-Identifier: MIT
/// \file
/// The owner of one POSIX file descriptor.
#pragma once

#include <utility>

#include "runeflow/platform/api.h"

namespace runeflow {

/// Owns a file descriptor and closes it on destruction. A default-constructed or moved-from object
/// owns none.
class RUNEFLOW_EXPORT FileDescriptor {
 public:
  FileDescriptor() = default;
  /// Takes ownership of `fd`; a negative number means none.
  explicit FileDescriptor(int fd) : fd_(fd) {}
  /// Takes over the descriptor of `other`, which then owns none.
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  /// Closes the owned descriptor, if any, and takes over the descriptor of `other`.
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~FileDescriptor() { reset(); }

  /// Returns the descriptor, or a negative number if the object owns none.
  int get() const { return fd_; }
  /// True if the object owns a descriptor.
  explicit operator bool() const { return fd_ >= 0; }

  /// Returns the descriptor and gives up ownership without closing it.
  int release() { return std::exchange(fd_, -1); }

  /// Closes the owned descriptor, if any, and takes ownership of `fd`.
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

}  // namespace runeflow
