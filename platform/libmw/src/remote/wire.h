#pragma once

#include "framesplitter.h"

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

/// Messages as bytes: what docs/wire states of them.
namespace mw::remote {

using Bytes = std::vector<std::byte>;

/// From this size on a text or binary at the end of a message is not copied into it: what is shorter costs less to copy
/// than to send as a part of its own.
inline constexpr std::size_t kLongContent = std::size_t{32} << 10;

/// The bytes of a text or binary; none of another value.
HX_API std::span<const std::byte> contentOf(const HX::HXValue& value);

/// A message to be sent. A long text or binary at its end is not copied: the message shares it with the value.
struct HX_API Message {
  Bytes bytes;
  HX::HXValue last;  ///< Its content follows `bytes`; nothing does where it is invalid.

  std::span<const std::byte> shared() const { return last.isValid() ? contentOf(last) : std::span<const std::byte>(); }
  std::size_t size() const { return bytes.size() + shared().size(); }
  void clear();
};

enum class MessageType : std::uint8_t { Request = 0, Response = 1, Notification = 2 };

/// The extension types of MessagePack that the protocol uses.
enum class Extension : std::int8_t {
  Chain = 1,   ///< First argument of a call: which chain of calls it belongs to.
  Object = 2,  ///< A reference to an object.
};

/// A value that is MessagePack, and none that can be kept: an integer beyond 63 bits, a map with other keys than texts,
/// an extension where none belongs. The reader stands behind it, so that it costs no more than what it is part of.
class HX_API ValueError : public ProtocolError {
 public:
  using ProtocolError::ProtocolError;
  ValueError(const ValueError&) = default;
  ValueError& operator=(const ValueError&) = default;
  ~ValueError() override;
};

/// Reads the parts of one message, front to back. Every function throws ProtocolError when what comes next is
/// something else.
class HX_API Reader {
 public:
  explicit Reader(std::span<const std::byte> bytes) : rest_(bytes) {}
  /// @param last  The text or binary that the message ends with, of which only the header is among the bytes. Invalid
  ///              where all is. Must outlive the reader.
  Reader(std::span<const std::byte> bytes, const HX::HXValue& last)
      : rest_(bytes), last_(last.isValid() ? &last : nullptr) {}

  bool atEnd() const { return rest_.empty(); }
  /// @return How many values the list has that begins here.
  std::uint32_t list() {
    const std::uint8_t format = peek();
    return (format & 0xf0U) == 0x90 ? (skipByte(), format & 0x0fU) : longList();
  }
  /// An integer from 0 to 2^32 - 1.
  std::uint32_t number() {
    const std::uint8_t format = peek();
    return format <= 0x7f ? (skipByte(), format) : longNumber();
  }
  /// Refers into the bytes.
  std::string_view text();
  /// Steps over nil. @return Whether it was there.
  bool nil() { return peek() == 0xc0 && (skipByte(), true); }
  /// @return The content of an extension of this type; nothing consumed, and a null pointer in it, when there is none.
  std::span<const std::byte> extension(Extension type);
  /// @throws ValueError
  HX::HXValue value();
  /// Steps over a value, whatever it be. @return Its bytes.
  std::span<const std::byte> skip();
  /// The same for the last value of the message, which nobody has to go over for that.
  std::span<const std::byte> rest();

 private:
  std::uint8_t peek() const {
    if (rest_.empty()) endedTooEarly();
    return std::to_integer<std::uint8_t>(rest_.front());
  }
  void skipByte() { rest_ = rest_.subspan(1); }
  [[noreturn]] static void endedTooEarly();
  std::uint32_t longList();
  std::uint32_t longNumber();
  std::span<const std::byte> take(std::size_t size);
  std::uint64_t bigEndian(std::size_t width);
  bool isAtLast() const;
  void join();

  std::span<const std::byte> rest_;
  const HX::HXValue* last_ = nullptr;
  std::shared_ptr<const Bytes> joined_;  // what `rest_` is of, then
};

/// Appends the parts of a message to bytes.
class HX_API Writer {
 public:
  explicit Writer(Bytes& out) : out_(out) {}
  explicit Writer(Message& out) : out_(out.bytes), last_(&out.last) {}

  void list(std::uint32_t size);
  void number(std::uint32_t number);
  void text(std::string_view text);
  void nil();
  void extension(Extension type, std::span<const std::byte> content);
  /// @throws std::runtime_error for a value too large for MessagePack.
  void value(const HX::HXValue& value);
  /// A value that nothing follows in the message: a long content is shared.
  /// @return Whether all of it is among the bytes.
  bool lastValue(const HX::HXValue& value);
  /// What has been written before, elsewhere.
  void encoded(std::span<const std::byte> parts) { out_.insert(out_.end(), parts.begin(), parts.end()); }

  /// All of them, until the next one.
  std::span<const std::byte> bytes() const { return out_; }

 private:
  Bytes& out_;
  HX::HXValue* const last_ = nullptr;
};

}  // namespace mw::remote
