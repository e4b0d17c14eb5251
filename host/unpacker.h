// SPDX-License-Identifier: MIT

// Files as they come from phones and other systems: compressed with gzip, or in UTF-16.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace host {

// Turns the bytes of a file into those of a log: unpacks gzip, all its members, converts UTF-16 and
// UTF-32 to UTF-8, and drops a byte order mark. Recognises both by the first bytes, so that other
// files pass unchanged. UTF-16 without a mark is recognised if the text begins with two ASCII
// characters. An unpaired surrogate becomes U+FFFD.
//
// Holds at most 64 KiB of unpacked bytes, whatever the file promises.
class Unpacker {
 public:
  // Takes unpacked bytes. Returns false to end the work.
  using Sink = std::function<bool(std::span<const std::uint8_t>)>;

  Unpacker();
  ~Unpacker();
  Unpacker(Unpacker&&) noexcept;
  Unpacker& operator=(Unpacker&&) noexcept;

  // Unpacks the next bytes of the file, cut anywhere. Returns false if `sink` did or the file is
  // damaged, which fault() tells apart.
  bool take(std::span<const std::uint8_t> bytes, const Sink& sink);

  // Unpacks what is held back at the end of the file. Returns as take() does.
  bool end(const Sink& sink);

  // Returns why the file cannot be unpacked; empty if it can.
  const std::string& fault() const { return fault_; }

  // Returns whether what comes out may differ from what went in.
  bool changesBytes() const;

 private:
  class Inflater;
  class Converter;

  bool inflate(std::span<const std::uint8_t> bytes, const Sink& sink);
  bool convert(std::span<const std::uint8_t> bytes, bool isEnd, const Sink& sink);
  bool decideEncoding(bool isEnd, const Sink& sink);

  enum class Packing { unknown, none, gzip };
  enum class Encoding { unknown, plain, marked, converted };

  Packing packing_ = Packing::unknown;
  Encoding encoding_ = Encoding::unknown;
  std::vector<std::uint8_t> head_;  // the first bytes, until the compression is known
  std::vector<std::uint8_t> text_;  // the same of the unpacked bytes
  std::unique_ptr<Inflater> inflater_;
  std::unique_ptr<Converter> converter_;
  std::string fault_;
};

}  // namespace host
