#pragma once

#include "error.h"

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace HX::recording {

static_assert(std::endian::native == std::endian::little, "numbers are written as they lie in memory");

/// Appends numbers and texts as the file has them: little endian, a text behind its length in 32 bits.
class ByteWriter {
 public:
  /// @param out  What is appended to. Must outlive the writer.
  explicit ByteWriter(std::string& out) : out_(out) {}

  template <std::unsigned_integral T>
  ByteWriter& number(T value) {
    char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    out_.append(bytes, sizeof(T));
    return *this;
  }
  ByteWriter& text(std::string_view text) {
    number(static_cast<std::uint32_t>(text.size()));
    return bytes(text);
  }
  ByteWriter& bytes(std::string_view bytes) {
    out_.append(bytes);
    return *this;
  }
  std::size_t size() const { return out_.size(); }
  /// Replaces a number that was written before what has become known since.
  template <std::unsigned_integral T>
  void patch(std::size_t place, T value) {
    std::memcpy(out_.data() + place, &value, sizeof(T));
  }

 private:
  std::string& out_;
};

/// Reads the same from bytes of anyone: what is not there is an error, and never a read beyond the end.
class ByteReader {
 public:
  /// @param bytes  Must stay while it is read, and while what was read of it is in use.
  explicit ByteReader(std::string_view bytes) : rest_(bytes) {}

  template <std::unsigned_integral T>
  T number() {
    T value;
    std::memcpy(&value, bytes(sizeof(T)).data(), sizeof(T));
    return value;
  }
  std::string_view text() { return bytes(number<std::uint32_t>()); }
  std::string_view bytes(std::uint64_t count) {
    if (count > rest_.size()) throw RecordingError("a record is shorter than it says");
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }
  std::string_view rest() const { return rest_; }
  bool atEnd() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

}  // namespace HX::recording
