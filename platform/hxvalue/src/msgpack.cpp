#include "builder.h"
#include "walk.h"

#include <hxvalue/msgpack.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include <msgpack.hpp>

namespace HX {

namespace {

// --- Writing ----------------------------------------------------------------------------------------------------

// What the packer writes to.
struct Appender {
  std::vector<std::byte>& out;

  void write(const char* data, std::size_t size) {
    const auto bytes = std::as_bytes(std::span(data, size));
    out.insert(out.end(), bytes.begin(), bytes.end());
  }
};

class MsgpackWriter {
 public:
  explicit MsgpackWriter(std::vector<std::byte>& out) : appender_{out}, packer_(appender_) {}

  void begin(const HXValue& container) {
    const std::uint32_t size = checkedSize(container.getSize());
    if (container.isList()) {
      packer_.pack_array(size);
    } else {
      packer_.pack_map(size);
    }
  }
  void end(const HXValue& /*container*/) {}
  void child(bool /*isFirst*/, const std::string* key) {
    if (key != nullptr) string(*key);
  }
  void leaf(const HXValue& value) {
    using Type = HXValue::Type;
    switch (value.getType()) {
      case Type::Bool:
        packer_.pack(value.asBool());
        break;
      case Type::Int:
        packer_.pack_int32(value.asInt());
        break;
      case Type::Int64:
        packer_.pack_fix_int64(value.asInt64());
        break;
      case Type::Float:
        float32(value.asFloat());
        break;
      case Type::Double:
        float64(value.asDouble());
        break;
      case Type::String:
        string(value.asString());
        break;
      case Type::Binary:
        binary(value.asBinary());
        break;
      default:
        packer_.pack_nil();
    }
  }

 private:
  static std::uint32_t checkedSize(std::size_t size) {
    if (std::in_range<std::uint32_t>(size)) return static_cast<std::uint32_t>(size);
    throw std::runtime_error("a content of size " + std::to_string(size) + " is too long for MessagePack");
  }
  void string(const std::string& text) {
    const std::uint32_t size = checkedSize(text.size());
    packer_.pack_str(size);
    packer_.pack_str_body(text.data(), size);
  }
  void binary(const HXValue::Binary& bytes) {
    const std::uint32_t size = checkedSize(bytes.size());
    packer_.pack_bin(size);
    packer_.pack_bin_body(reinterpret_cast<const char*>(bytes.data()), size);
  }

  // The packer's own functions for floats write those without a fraction as integers, which would read back as such.
  // So it is given the bits, and the format is set right.
  void float32(float number) {
    const std::size_t format = appender_.out.size();
    packer_.pack_fix_uint32(std::bit_cast<std::uint32_t>(number));
    appender_.out[format] = std::byte{0xca};
  }
  void float64(double number) {
    const std::size_t format = appender_.out.size();
    packer_.pack_fix_uint64(std::bit_cast<std::uint64_t>(number));
    appender_.out[format] = std::byte{0xcb};
  }

  Appender appender_;
  msgpack::packer<Appender> packer_;
};

// --- Reading ----------------------------------------------------------------------------------------------------

// Bytes that a format's header takes, from its first byte. Extension types are refused before this matters.
std::size_t headerSize(std::uint8_t format) {
  constexpr std::uint8_t kFirst = 0xc4;
  constexpr std::array<std::uint8_t, 28> kSizes{2, 3, 5,                 // bin
                                                3, 4, 6,                 // ext
                                                5, 9,                    // float
                                                2, 3, 5, 9, 2, 3, 5, 9,  // uint, int
                                                2, 2, 2, 2, 2,           // fixext
                                                2, 3, 5,                 // str
                                                3, 5, 3, 5};             // array, map
  return format >= kFirst && format < kFirst + kSizes.size() ? kSizes[format - kFirst] : 1;
}

// The parser tells numbers without their formats, which here decide between Int and Int64. So the reader keeps its
// own place in the bytes: events come in their order, one for each header.
class MsgpackReader : public msgpack::null_visitor {
 public:
  MsgpackReader(std::span<const std::byte> bytes, const MsgpackLimits& limits)
      : bytes_(bytes), valuesLeft_(limits.values), builder_(limits.depth) {}

  std::size_t position() const { return position_; }
  HXValue take() { return builder_.take(); }

  bool visit_nil() { return add(HXValue()); }
  bool visit_boolean(bool value) { return add(value); }
  bool visit_positive_integer(std::uint64_t value) {
    if (std::in_range<std::int64_t>(value)) return visit_negative_integer(static_cast<std::int64_t>(value));
    throw std::runtime_error("the integer " + std::to_string(value) + " does not fit 64 signed bits");
  }
  bool visit_negative_integer(std::int64_t value) {
    const bool isInt = headerSize(format()) < 9 && std::in_range<std::int32_t>(value);
    return isInt ? add(static_cast<std::int32_t>(value)) : add(value);
  }
  bool visit_float32(float value) { return add(value); }
  bool visit_float64(double value) { return add(value); }
  bool visit_str(const char* data, std::uint32_t size) {
    std::string text(data, size);
    if (!keyExpected_) return add(std::move(text), size);
    keyExpected_ = false;
    builder_.key(std::move(text));
    return step(size);
  }
  bool visit_bin(const char* data, std::uint32_t size) {
    const auto bytes = std::as_bytes(std::span(data, size));
    return add(HXValue::binary(bytes), size);
  }
  bool visit_ext(const char* data, std::uint32_t /*size*/) {
    const auto type = static_cast<int>(static_cast<std::int8_t>(*data));
    throw std::runtime_error("extension type " + std::to_string(type) + " is no value");
  }
  bool start_array(std::uint32_t size) {
    count();
    builder_.beginList(std::min<std::size_t>(size, bytes_.size() - position_));
    return step(0);
  }
  bool start_map(std::uint32_t /*size*/) {
    count();
    builder_.beginMap();
    return step(0);
  }
  bool start_map_key() {
    keyExpected_ = true;
    return true;
  }
  bool end_array() { return end(); }
  bool end_map() { return end(); }
  void parse_error(std::size_t /*parsed*/, std::size_t /*error*/) {
    throw std::runtime_error("the byte " + std::to_string(format()) + " is no format");
  }
  void insufficient_bytes(std::size_t /*parsed*/, std::size_t /*error*/) {
    throw std::runtime_error("the bytes end in the middle of a value");
  }

 private:
  std::uint8_t format() const { return std::to_integer<std::uint8_t>(bytes_[position_]); }

  bool step(std::size_t contentSize) {
    position_ += headerSize(format()) + contentSize;
    return true;
  }
  void count() {
    if (keyExpected_) throw std::runtime_error("a map key is not a string");
    if (valuesLeft_ == 0) throw std::runtime_error("more values than allowed");
    --valuesLeft_;
  }
  template <class T>
  bool add(T&& value, std::size_t contentSize = 0) {
    count();
    builder_.add(std::forward<T>(value));
    return step(contentSize);
  }
  bool end() {
    builder_.end();
    return true;
  }

  std::span<const std::byte> bytes_;
  std::size_t position_ = 0;
  std::size_t valuesLeft_;
  bool keyExpected_ = false;
  Builder builder_;
};

// What stands behind a format of one value without parts; nothing for other formats.
std::optional<HXValue> scalar(std::uint8_t format, std::uint64_t bits) {
  switch (format) {
    case 0xc0:
      return HXValue();
    case 0xc2:
    case 0xc3:
      return HXValue(format == 0xc3);
    case 0xca:
      return HXValue(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    case 0xcb:
      return HXValue(std::bit_cast<double>(bits));
    case 0xcc:
    case 0xcd:
      return HXValue(static_cast<std::int32_t>(bits));
    case 0xd0:
      return HXValue(static_cast<std::int32_t>(static_cast<std::int8_t>(bits)));
    case 0xd1:
      return HXValue(static_cast<std::int32_t>(static_cast<std::int16_t>(bits)));
    case 0xd2:
      return HXValue(static_cast<std::int32_t>(bits));
    case 0xd3:
      return HXValue(static_cast<std::int64_t>(bits));
    default:
      return std::nullopt;
  }
}

// Scalars and short texts, of which most messages consist: to set up the parser takes longer than to read them. Nothing
// for anything else, and for what is wrong, of which the parser tells.
std::optional<HXValue> readPlain(std::span<const std::byte> bytes, std::size_t& size) {
  if (bytes.empty()) return std::nullopt;
  const auto format = std::to_integer<std::uint8_t>(bytes.front());
  constexpr std::uint8_t kShortText = 0xa0;
  constexpr std::uint8_t kLength = 0x1f;
  const bool isText = (format & ~kLength) == kShortText;
  size = isText ? 1U + (format & kLength) : headerSize(format);
  if (bytes.size() < size) return std::nullopt;
  const auto content = bytes.subspan(1, size - 1);
  if (isText) return HXValue(std::string(reinterpret_cast<const char*>(content.data()), content.size()));
  if (format <= 0x7f || format >= 0xe0) return HXValue(static_cast<std::int32_t>(static_cast<std::int8_t>(format)));
  std::uint64_t bits = 0;
  for (const std::byte one : content) bits = bits << 8U | std::to_integer<std::uint64_t>(one);
  return scalar(format, bits);
}

}  // namespace

void appendMsgpack(std::vector<std::byte>& out, const HXValue& value) {
  const std::size_t before = out.size();
  try {
    MsgpackWriter writer(out);
    walk(value, writer);
  } catch (...) {
    out.resize(before);
    throw;
  }
}

std::vector<std::byte> toMsgpack(const HXValue& value) {
  std::vector<std::byte> out;
  appendMsgpack(out, value);
  return out;
}

HXValue readMsgpack(std::span<const std::byte> bytes, std::size_t& size, const MsgpackLimits& limits) {
  if (auto plain = limits.values > 0 ? readPlain(bytes, size) : std::nullopt) return *std::move(plain);
  MsgpackReader reader(bytes, limits);
  try {
    std::size_t end = 0;
    msgpack::parse(reinterpret_cast<const char*>(bytes.data()), bytes.size(), end, reader);
    size = end;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("MessagePack byte " + std::to_string(reader.position()) + ": " + error.what());
  }
  return reader.take();
}

HXValue fromMsgpack(std::span<const std::byte> bytes, const MsgpackLimits& limits) {
  std::size_t size = 0;
  HXValue value = readMsgpack(bytes, size, limits);
  if (size == bytes.size()) return value;
  throw std::runtime_error("MessagePack byte " + std::to_string(size) + ": bytes are left over after the value");
}

}  // namespace HX
