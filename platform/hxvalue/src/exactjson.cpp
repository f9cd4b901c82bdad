#include <hxvalue/exactjson.h>
#include <hxvalue/json.h>
#include <hxvalue/msgpack.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <vector>

namespace HX {
namespace {

bool survivesReading(const HXValue& value) {
  try {
    return fromJson(toJson(value)) == value;
  } catch (const std::runtime_error&) {  // Nested too deep, for instance.
    return false;
  }
}

/// Scalars, which are most of all values, are told without being written and read.
bool survivesJson(const HXValue& value) {
  switch (value.getType()) {
    case HXValue::Type::Invalid:
    case HXValue::Type::Bool:
    case HXValue::Type::Int:
      return true;
    case HXValue::Type::Int64: {
      using Small = std::numeric_limits<std::int32_t>;
      return value.asInt64() < Small::min() || value.asInt64() > Small::max();
    }
    case HXValue::Type::Double:
      return std::isfinite(value.asDouble());
    case HXValue::Type::Float:
    case HXValue::Type::Binary:
      return false;
    default:
      return survivesReading(value);
  }
}

}  // namespace

std::string exactHex(const HXValue& value) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  if (survivesJson(value)) return text;
  const std::vector<std::byte> bytes = toMsgpack(value);
  text.reserve(2 * bytes.size());
  for (const std::byte byte : bytes) {
    text += kDigits[std::to_integer<std::size_t>(byte >> 4)];
    text += kDigits[std::to_integer<std::size_t>(byte & std::byte{15})];
  }
  return text;
}

HXValue fromExactHex(std::string_view digits) {
  std::vector<std::byte> bytes;
  bytes.reserve(digits.size() / 2);
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    unsigned char byte = 0;
    const char* const begin = digits.data() + i;
    const char* const end = digits.data() + std::min(i + 2, digits.size());
    if (end - begin != 2 || std::from_chars(begin, end, byte, 16).ptr != end) {
      throw std::runtime_error("msgpack: no hexadecimal digits at character " + std::to_string(i + 1));
    }
    bytes.push_back(std::byte{byte});
  }
  return fromMsgpack(bytes);
}

}  // namespace HX
