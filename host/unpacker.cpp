// SPDX-License-Identifier: MIT
#include "host/unpacker.h"

#include <unicode/ucnv.h>
#include <zlib.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace host {

using Bytes = std::span<const std::uint8_t>;

namespace {

constexpr std::size_t kPieceSize = 65'536;  // bytes that are unpacked at a time
constexpr std::size_t kGzipMark = 2;        // bytes
constexpr std::size_t kEncodingMark = 4;

bool beginsWith(Bytes bytes, std::initializer_list<std::uint8_t> mark) {
  return bytes.size() >= mark.size() && std::ranges::equal(bytes.first(mark.size()), mark);
}

// Returns the name of the encoding for ICU, or null for UTF-8. `bytes` are the first four, or all.
const char* encodingOf(Bytes bytes) {
  if (beginsWith(bytes, {0xFF, 0xFE, 0, 0})) return "UTF-32LE";
  if (beginsWith(bytes, {0, 0, 0xFE, 0xFF})) return "UTF-32BE";
  if (beginsWith(bytes, {0xFF, 0xFE})) return "UTF-16LE";
  if (beginsWith(bytes, {0xFE, 0xFF})) return "UTF-16BE";
  const auto isAscii = [&](std::size_t at) { return bytes[at] > 0 && bytes[at] < 0x80; };
  if (bytes.size() < kEncodingMark) return nullptr;
  if (isAscii(0) && isAscii(2) && bytes[1] == 0 && bytes[3] == 0) return "UTF-16LE";
  if (isAscii(1) && isAscii(3) && bytes[0] == 0 && bytes[2] == 0) return "UTF-16BE";
  return nullptr;
}

std::size_t markSize(Bytes bytes) {
  if (beginsWith(bytes, {0xFF, 0xFE, 0, 0}) || beginsWith(bytes, {0, 0, 0xFE, 0xFF})) return 4;
  if (beginsWith(bytes, {0xEF, 0xBB, 0xBF})) return 3;
  return beginsWith(bytes, {0xFF, 0xFE}) || beginsWith(bytes, {0xFE, 0xFF}) ? 2 : 0;
}

}  // namespace

// zlib's state for one file.
class Unpacker::Inflater {
 public:
  Inflater() {
    constexpr int kGzipOnly = 16;
    isReady_ = ::inflateInit2(&stream_, MAX_WBITS + kGzipOnly) == Z_OK;
  }
  ~Inflater() { ::inflateEnd(&stream_); }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  // Calls `emit` with the unpacked bytes of the next ones. Returns false if it did; fault() then is
  // empty.
  template <class Emit>
  bool take(Bytes bytes, const Emit& emit) {
    if (!isReady_) return fail("there is no memory to unpack it");
    stream_.next_in = const_cast<Bytef*>(bytes.data());  // zlib's older interface; it only reads
    stream_.avail_in = static_cast<uInt>(bytes.size());
    while (stream_.avail_in > 0 && !isAtPadding()) {
      if (hasEnded_ && ::inflateReset(&stream_) != Z_OK) return fail("it cannot be unpacked");
      hasEnded_ = false;
      if (!inflateAll(emit)) return false;
    }
    return true;
  }

  bool hasEnded() const { return hasEnded_; }
  const std::string& fault() const { return fault_; }

 private:
  // Unpacks until the input is used up or a member ends.
  template <class Emit>
  bool inflateAll(const Emit& emit) {
    do {
      stream_.next_out = piece_.data();
      stream_.avail_out = static_cast<uInt>(piece_.size());
      const int result = ::inflate(&stream_, Z_NO_FLUSH);
      if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
        return fail(stream_.msg ? std::string("its gzip data is damaged: ") + stream_.msg
                                : "its gzip data is damaged");
      }
      hasEnded_ = result == Z_STREAM_END;
      if (!emit(Bytes(piece_).first(piece_.size() - stream_.avail_out))) return false;
    } while (!hasEnded_ && stream_.avail_out == 0);
    return true;
  }

  // Some programs fill the end of the file with zeros.
  bool isAtPadding() {
    if (hasEnded_ && *stream_.next_in == 0) stream_.avail_in = 0;
    return stream_.avail_in == 0;
  }

  bool fail(std::string reason) {
    fault_ = std::move(reason);
    return false;
  }

  z_stream stream_{};
  std::array<std::uint8_t, kPieceSize> piece_{};
  std::string fault_;
  bool isReady_ = false;
  bool hasEnded_ = false;  // a member has ended, and no other has begun
};

// ICU's state for one file.
class Unpacker::Converter {
 public:
  explicit Converter(const char* encoding) {
    UErrorCode error = U_ZERO_ERROR;
    source_.reset(::ucnv_open(encoding, &error));
    target_.reset(::ucnv_open("UTF-8", &error));
  }

  bool take(Bytes bytes, bool isEnd, const Sink& sink) {
    const char* next = reinterpret_cast<const char*>(bytes.data());
    const char* const end = next + bytes.size();
    for (;;) {
      UErrorCode error = U_ZERO_ERROR;
      char* out = piece_.data();
      ::ucnv_convertEx(target_.get(), source_.get(), &out, piece_.data() + piece_.size(), &next,
                       end, pivot_.data(), &pivotSource_, &pivotTarget_,
                       pivot_.data() + pivot_.size(), 0, isEnd ? 1 : 0, &error);
      const auto size = static_cast<std::size_t>(out - piece_.data());
      if (size > 0 && !sink({reinterpret_cast<const std::uint8_t*>(piece_.data()), size})) {
        return false;
      }
      if (error != U_BUFFER_OVERFLOW_ERROR) return true;
    }
  }

 private:
  struct Close {
    void operator()(UConverter* converter) const { ::ucnv_close(converter); }
  };
  static constexpr std::size_t kPivotSize = 4'096;

  std::unique_ptr<UConverter, Close> source_;
  std::unique_ptr<UConverter, Close> target_;
  std::array<char, kPieceSize> piece_{};
  std::array<UChar, kPivotSize> pivot_{};
  UChar* pivotSource_ = pivot_.data();
  UChar* pivotTarget_ = pivot_.data();
};

Unpacker::Unpacker() = default;
Unpacker::~Unpacker() = default;
Unpacker::Unpacker(Unpacker&&) noexcept = default;
Unpacker& Unpacker::operator=(Unpacker&&) noexcept = default;

bool Unpacker::take(Bytes bytes, const Sink& sink) {
  if (packing_ != Packing::unknown) return inflate(bytes, sink);
  head_.insert(head_.end(), bytes.begin(), bytes.end());
  if (head_.size() < kGzipMark) return true;
  packing_ = beginsWith(head_, {0x1F, 0x8B}) ? Packing::gzip : Packing::none;
  if (packing_ == Packing::gzip) inflater_ = std::make_unique<Inflater>();
  return inflate(std::exchange(head_, {}), sink);
}

bool Unpacker::end(const Sink& sink) {
  if (packing_ == Packing::unknown) packing_ = Packing::none;
  if (!inflate(std::exchange(head_, {}), sink) || !convert({}, true, sink)) return false;
  if (inflater_ && !inflater_->hasEnded()) fault_ = "its gzip data ends early";
  return fault_.empty();
}

bool Unpacker::changesBytes() const {
  return packing_ == Packing::gzip || encoding_ == Encoding::converted;
}

bool Unpacker::inflate(Bytes bytes, const Sink& sink) {
  if (!inflater_) return convert(bytes, false, sink);
  const bool goesOn =
      inflater_->take(bytes, [&](Bytes unpacked) { return convert(unpacked, false, sink); });
  if (!goesOn) fault_ = inflater_->fault();
  return goesOn;
}

bool Unpacker::convert(Bytes bytes, bool isEnd, const Sink& sink) {
  if (encoding_ == Encoding::unknown) {
    text_.insert(text_.end(), bytes.begin(), bytes.end());
    return text_.size() < kEncodingMark && !isEnd ? true : decideEncoding(isEnd, sink);
  }
  if (converter_) return converter_->take(bytes, isEnd, sink);
  return bytes.empty() || sink(bytes);
}

bool Unpacker::decideEncoding(bool isEnd, const Sink& sink) {
  const auto text = std::exchange(text_, {});
  const auto mark = markSize(text);
  if (const char* encoding = encodingOf(text)) {
    converter_ = std::make_unique<Converter>(encoding);
    encoding_ = Encoding::converted;
  } else {
    encoding_ = mark > 0 ? Encoding::marked : Encoding::plain;
  }
  return convert(Bytes(text).subspan(mark), isEnd, sink);
}

}  // namespace host
