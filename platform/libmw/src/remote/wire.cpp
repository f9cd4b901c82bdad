#include "wire.h"

#include <hxvalue/msgpack.h>

#include <limits>
#include <utility>

#include <msgpack.hpp>

namespace mw::remote {
namespace {

struct Appender {
  Bytes& out;
  void write(const char* data, std::size_t size) {
    const auto bytes = std::as_bytes(std::span(data, size));
    out.insert(out.end(), bytes.begin(), bytes.end());
  }
};

template <class Use>
void pack(Bytes& out, Use&& use) {
  Appender appender{out};
  msgpack::packer<Appender> packer(appender);
  use(packer);
}

}  // namespace

ValueError::~ValueError() = default;

std::span<const std::byte> contentOf(const HX::HXValue& value) {
  if (const auto* text = value.stringIf()) return std::as_bytes(std::span(*text));
  if (const auto* binary = value.binaryIf()) return *binary;
  return {};
}

void Message::clear() {
  bytes.clear();
  last = {};
}

void Reader::endedTooEarly() { throw ProtocolError("a message with too few parts"); }

std::span<const std::byte> Reader::take(std::size_t size) {
  if (size > rest_.size()) throw ProtocolError("a message that ends too early");
  const auto taken = rest_.first(size);
  rest_ = rest_.subspan(size);
  return taken;
}

std::uint64_t Reader::bigEndian(std::size_t width) {
  std::uint64_t number = 0;
  for (const std::byte one : take(width)) number = number << 8U | std::to_integer<std::uint64_t>(one);
  return number;
}

std::uint32_t Reader::longList() {
  const std::uint8_t format = peek();
  if (format != 0xdc && format != 0xdd) throw ProtocolError("no list where one belongs");
  skipByte();
  return static_cast<std::uint32_t>(bigEndian(format == 0xdc ? 2 : 4));
}

std::uint32_t Reader::longNumber() {
  const std::uint8_t format = peek();
  // 0xcc to 0xcf are unsigned, 0xd0 to 0xd3 signed, of 1, 2, 4, 8 bytes each.
  if (format < 0xcc || format > 0xd3) throw ProtocolError("no number where one belongs");
  skipByte();
  const std::size_t width = std::size_t{1} << (format & 3U);
  const std::uint64_t number = bigEndian(width);
  const bool negative = format >= 0xd0 && number >> (8 * width - 1) != 0;
  if (negative || number > UINT32_MAX) throw ProtocolError("a number out of range");
  return static_cast<std::uint32_t>(number);
}

std::string_view Reader::text() {
  const std::uint8_t format = peek();
  std::uint64_t size = 0;
  if (format >= 0xa0 && format <= 0xbf) {
    skipByte();
    size = format & 0x1fU;
  } else if (format >= 0xd9 && format <= 0xdb) {
    skipByte();
    size = bigEndian(std::size_t{1} << (format - 0xd9U));
  } else {
    throw ProtocolError("no text where one belongs");
  }
  const auto bytes = take(size);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::span<const std::byte> Reader::extension(Extension type) {
  const std::uint8_t format = peek();
  const auto before = rest_;
  std::uint64_t size = 0;
  if (format >= 0xd4 && format <= 0xd8) {
    skipByte();
    size = std::size_t{1} << (format - 0xd4U);
  } else if (format >= 0xc7 && format <= 0xc9) {
    skipByte();
    size = bigEndian(std::size_t{1} << (format - 0xc7U));
  } else {
    return {};
  }
  if (std::to_integer<std::int8_t>(take(1).front()) != static_cast<std::int8_t>(type)) {
    rest_ = before;
    return {};
  }
  return take(size);
}

/// Whether nothing but the header of the last value is left. What comes before that is longer, or begins otherwise.
bool Reader::isAtLast() const {
  if (!last_ || rest_.empty()) return false;
  switch (peek()) {
    case 0xc5:
    case 0xda:
      return rest_.size() == 3;
    case 0xc6:
    case 0xdb:
      return rest_.size() == 5;
    default:
      return false;
  }
}

/// Makes the next value one piece, where the last one lies inside of it. What comes before the last leaves that where
/// it is.
void Reader::join() {
  constexpr auto kNoLimit =
      std::numeric_limits<std::size_t>::max();  // They have been kept by whoever found the message.
  if (!last_ || FrameSplitter(kNoLimit, kNoLimit).advance(rest_) > 0) return;
  auto joined = std::make_shared<Bytes>(rest_.begin(), rest_.end());
  const auto content = contentOf(*std::exchange(last_, nullptr));
  joined->insert(joined->end(), content.begin(), content.end());
  rest_ = *joined;
  joined_ = std::move(joined);
}

HX::HXValue Reader::value() {
  if (isAtLast()) {
    rest_ = {};
    return *std::exchange(last_, nullptr);
  }
  join();
  std::size_t size = 0;
  HX::HXValue read;
  try {
    read = HX::readMsgpack(rest_, size);
  } catch (const std::runtime_error& error) {
    size = FrameSplitter(rest_.size(), rest_.size()).advance(rest_);
    if (size == 0) throw ProtocolError("a message that ends too early");
    rest_ = rest_.subspan(size);
    throw ValueError(error.what());
  }
  rest_ = rest_.subspan(size);
  return read;
}

std::span<const std::byte> Reader::skip() {
  join();
  // The limits have been kept by whoever found the message.
  FrameSplitter splitter(rest_.size(), rest_.size());
  const std::size_t size = splitter.advance(rest_);
  if (size == 0) throw ProtocolError("a message that ends too early");
  return take(size);
}

std::span<const std::byte> Reader::rest() {
  join();
  return take(rest_.size());
}

void Writer::list(std::uint32_t size) {
  pack(out_, [&](auto& packer) { packer.pack_array(size); });
}

void Writer::number(std::uint32_t number) {
  pack(out_, [&](auto& packer) { packer.pack_uint32(number); });
}

void Writer::text(std::string_view text) {
  const auto size = static_cast<std::uint32_t>(text.size());
  pack(out_, [&](auto& packer) { packer.pack_str(size).pack_str_body(text.data(), size); });
}

void Writer::nil() {
  pack(out_, [](auto& packer) { packer.pack_nil(); });
}

void Writer::extension(Extension type, std::span<const std::byte> content) {
  const auto size = static_cast<std::uint32_t>(content.size());
  pack(out_, [&](auto& packer) {
    packer.pack_ext(size, static_cast<std::int8_t>(type));
    packer.pack_ext_body(reinterpret_cast<const char*>(content.data()), size);
  });
}

void Writer::value(const HX::HXValue& value) { HX::appendMsgpack(out_, value); }

bool Writer::lastValue(const HX::HXValue& value) {
  const std::size_t size = value.isString() ? value.asString().size() : value.isBinary() ? value.asBinary().size() : 0;
  if (!last_ || size < kLongContent || !std::in_range<std::uint32_t>(size)) {
    this->value(value);
    return true;
  }
  pack(out_, [&](auto& packer) {
    const auto length = static_cast<std::uint32_t>(size);
    value.isString() ? packer.pack_str(length) : packer.pack_bin(length);
  });
  *last_ = value;
  return false;
}

}  // namespace mw::remote
