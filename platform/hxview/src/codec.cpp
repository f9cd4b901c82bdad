#include <hxvalue/msgpack.h>
#include <hxview/codec.h>

#include <bit>
#include <cstring>
#include <exception>

namespace HX::view {
namespace {

/// The next bytes as a number, most significant first.
std::optional<std::uint64_t> take(std::span<const std::byte>& bytes, std::size_t size) noexcept {
  if (bytes.size() < size) return std::nullopt;
  std::uint64_t number = 0;
  for (const std::byte one : bytes.first(size)) number = number << 8U | std::to_integer<std::uint64_t>(one);
  bytes = bytes.subspan(size);
  return number;
}

Number integer(std::int64_t value) noexcept { return {Number::Form::Int, value, 0}; }

// From 0xcc on: unsigned and signed integers of 1, 2, 4, 8 bytes.
constexpr std::uint64_t kUnsigned = 0xcc;
constexpr std::uint64_t kSigned = 0xd0;
constexpr std::uint64_t kEnd = 0xd4;

std::optional<Number> takeInteger(std::span<const std::byte>& bytes, std::uint64_t format) noexcept {
  const bool isSigned = format >= kSigned;
  const std::size_t size = std::size_t{1} << (format - (isSigned ? kSigned : kUnsigned));
  const auto bits = take(bytes, size);
  if (!bits) return std::nullopt;
  if (!isSigned) {
    if (*bits >> 63U) return std::nullopt;
    return integer(static_cast<std::int64_t>(*bits));
  }
  const auto unused = 64U - 8U * static_cast<unsigned>(size);
  return integer(static_cast<std::int64_t>(*bits << unused) >> unused);
}

}  // namespace

std::optional<Number> readNumber(std::span<const std::byte>& bytes) noexcept {
  const auto format = take(bytes, 1);
  if (!format) return std::nullopt;
  if (*format < 0x80 || *format >= 0xe0) return integer(static_cast<std::int8_t>(*format));
  if (*format == 0xc2 || *format == 0xc3) return Number{Number::Form::Bool, *format == 0xc3 ? 1 : 0, 0};
  if (*format == 0xca) {
    const auto bits = take(bytes, 4);
    if (!bits) return std::nullopt;
    return Number{Number::Form::Float, 0, static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(*bits)))};
  }
  if (*format == 0xcb) {
    const auto bits = take(bytes, 8);
    if (!bits) return std::nullopt;
    return Number{Number::Form::Double, 0, std::bit_cast<double>(*bits)};
  }
  if (*format >= kUnsigned && *format < kEnd) return takeInteger(bytes, *format);
  return std::nullopt;
}

std::optional<std::size_t> readListSize(std::span<const std::byte>& bytes) noexcept {
  const auto format = take(bytes, 1);
  if (!format) return std::nullopt;
  if ((*format & 0xf0U) == 0x90) return *format & 0x0fU;
  if (*format == 0xdc) return take(bytes, 2);
  if (*format == 0xdd) return take(bytes, 4);
  return std::nullopt;
}

bool decode(const Kind& kind, std::span<const std::byte> bytes, HXValue& value) {
  using Type = HXValue::Type;
  switch (kind.type) {
    case Type::Invalid:
      value = HXValue();
      return true;
    case Type::String:
      value = std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
      return true;
    case Type::Binary:
      value = HXValue::binary(bytes);
      return true;
    case Type::List:
    case Type::Map:
      try {
        value = fromMsgpack(bytes);
        return value.getType() == kind.type;
      } catch (const std::runtime_error&) {
        return false;
      }
    default:
      break;
  }
  std::uint64_t bits = 0;
  if (kind.type > Type::Map || bytes.size() != sizeof bits) return false;
  std::memcpy(&bits, bytes.data(), sizeof bits);
  if (kind.type == Type::Bool) bits = (bits & 0xffU) != 0 ? 1 : 0;  // A bool has two values, whatever lies there.
  value = HXValue::fromScalarBits(kind.type, bits);
  return true;
}

}  // namespace HX::view
