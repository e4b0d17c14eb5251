// SPDX-License-Identifier: MIT
/// \file
/// The buffer that holds the texts of one LogRow. Programs use LogRow and need not use this class.
///
/// Up to 128 bytes are stored inside the record, and more on the heap. Allocating memory for every
/// record would take a tenth of the time of a fetch.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

namespace runeflow {

/// A byte buffer of fixed size with value semantics. A moved-from object is empty. Moving copies
/// bytes that are stored inside the object, and therefore invalidates views of them.
class ShortText {
 public:
  /// Creates a buffer of `size` uninitialized bytes. The caller must write all of them to data().
  explicit ShortText(std::size_t size) : size_(size) {
    if (size > kInlineSize) heap_ = std::make_unique_for_overwrite<char[]>(size);
  }
  /// Copies the bytes.
  ShortText(const ShortText& other) : ShortText(other.size_) { other.view().copy(data(), size_); }
  /// Takes over the bytes and leaves `other` empty.
  ShortText(ShortText&& other) noexcept { take(other); }
  /// Replaces the bytes and the size.
  ShortText& operator=(ShortText other) noexcept {
    take(other);
    return *this;
  }
  ~ShortText() = default;

  /// Returns the start of the buffer. The pointer is valid until the object is moved, assigned to
  /// or destroyed.
  char* data() { return heap_ ? heap_.get() : inline_.data(); }
  /// Returns the whole buffer, without a terminating NUL. The view is valid as long as data() is.
  std::string_view view() const { return {heap_ ? heap_.get() : inline_.data(), size_}; }

  bool operator==(const ShortText& other) const { return view() == other.view(); }

 private:
  static constexpr std::size_t kInlineSize = 128;  // holds the slots and message of most records

  void take(ShortText& other) {
    size_ = std::exchange(other.size_, 0);
    heap_ = std::move(other.heap_);
    if (!heap_) std::string_view(other.inline_.data(), size_).copy(inline_.data(), size_);
  }

  std::size_t size_;
  std::unique_ptr<char[]> heap_;
  std::array<char, kInlineSize> inline_;
};

}  // namespace runeflow
