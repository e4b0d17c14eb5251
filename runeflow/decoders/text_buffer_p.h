// SPDX-License-Identifier: MIT
// Collects the texts of one record after the other in the same memory, so that a record allocates
// its texts once and at their exact size.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <vector>

namespace runeflow {

class TextBuffer {
 public:
  TextBuffer() = default;
  TextBuffer(const TextBuffer&) = delete;
  TextBuffer& operator=(const TextBuffer&) = delete;

  // Empties the buffer and makes room for `most` bytes. Appending more than that is a bug of the
  // caller.
  void start(std::size_t most) {
    if (room_.size() < most) room_.resize(most);
    end_ = room_.data();
  }

  std::size_t size() const { return static_cast<std::size_t>(end_ - room_.data()); }
  // The view is valid until the next start().
  std::string_view view() const { return {room_.data(), size()}; }

  void append(std::string_view part) {
    assert(part.size() <= left());
    if (part.empty()) return;  // memcpy must not be given a null pointer
    std::memcpy(end_, part.data(), part.size());
    end_ += part.size();
  }

  void append(char c) {
    assert(left() > 0);
    *end_++ = c;
  }

  // Calls `write` with the end of the text and the end of the room. It writes between them and
  // returns the new end of the text.
  template <class Write>
  void appendWith(Write write) {
    char* const last = end_ + left();
    end_ = write(end_, last);
    assert(end_ < last);  // std::to_chars returns `last` if the room is too small
  }

  // Removes what was appended after the buffer had `size` bytes.
  void shrink(std::size_t size) {
    assert(size <= this->size());
    end_ = room_.data() + size;
  }

 private:
  std::size_t left() const { return room_.size() - size(); }

  std::vector<char> room_;
  char* end_ = nullptr;  // of the text, which begins where the room does
};

}  // namespace runeflow
