// The texts of a record, in the record itself while they are short, and else on the heap: an
// allocation for every record would cost a fetch a tenth of its time.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

namespace runeflow {

// A value. Moved from, it is empty; its own bytes are copied by a move, so views do not survive it.
class ShortText {
 public:
  // Of `size` bytes, for the caller to write to data().
  explicit ShortText(std::size_t size) : size_(size) {
    if (size > kInlineSize) heap_ = std::make_unique_for_overwrite<char[]>(size);
  }
  ShortText(const ShortText& other) : ShortText(other.size_) { other.view().copy(data(), size_); }
  ShortText(ShortText&& other) noexcept { take(other); }
  ShortText& operator=(ShortText other) noexcept {
    take(other);
    return *this;
  }
  ~ShortText() = default;

  char* data() { return heap_ ? heap_.get() : inline_.data(); }
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
