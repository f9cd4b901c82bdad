#pragma once

#include <hxvalue/hxvalue.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>

namespace HX::kit {

/// Makes values of every type, nested, with a liking for the edges of each type. The same seed gives the same values.
class RandomValues {
 public:
  explicit RandomValues(std::uint32_t seed) : engine_(seed) {}

  /// @param depth  Lists and maps inside one another, at most.
  HXValue next(int depth = 4) {
    using Type = HXValue::Type;
    const auto last = depth > 0 ? Type::Map : Type::Binary;
    return make(static_cast<Type>(below(static_cast<std::uint32_t>(last) + 1)), depth);
  }

 private:
  HXValue make(HXValue::Type type, int depth) {
    using Type = HXValue::Type;
    if (type == Type::Bool) return below(2) == 0;
    if (type == Type::Int) return integer<std::int32_t>();
    if (type == Type::Int64) return integer<std::int64_t>();
    if (type == Type::Float) return decimal<float, std::uint32_t>();
    if (type == Type::Double) return decimal<double, std::uint64_t>();
    if (type == Type::String) return text();
    if (type == Type::Binary) return binary();
    if (type == Type::List) return list(depth - 1);
    if (type == Type::Map) return map(depth - 1);
    return {};
  }

  template <typename Integer>
  Integer integer() {
    using Limits = std::numeric_limits<Integer>;
    const Integer choices[] = {Limits::min(), Limits::max(), static_cast<Integer>(static_cast<int>(below(300)) - 150),
                               static_cast<Integer>(engine_())};
    return choices[below(4)];
  }

  // Any bits are a number of the type: subnormals, infinities and NaN come along.
  template <typename Decimal, typename Bits>
  Decimal decimal() {
    const auto bits = static_cast<Bits>(engine_());
    Decimal number;
    std::memcpy(&number, &bits, sizeof number);
    return number;
  }

  std::string text() {
    static constexpr const char* kPieces[] = {"a", "Key/", "\"", "\\", "\n", "\x7f", "\u00e9", "\U0001f916"};
    std::string text;
    for (std::uint32_t left = below(40); left > 0; --left) text += kPieces[below(8)];
    if (below(4) == 0) text += '\0';
    if (below(4) == 0) text += '\xff';
    return text;
  }

  HXValue binary() {
    HXValue::Binary bytes(below(300));
    for (std::byte& byte : bytes) byte = static_cast<std::byte>(engine_());
    return bytes;
  }

  HXValue list(int depth) {
    HXValue list = HXValue::list();
    for (std::uint32_t left = below(20); left > 0; --left) list.arrayPush(next(depth));
    return list;
  }

  HXValue map(int depth) {
    HXValue map = HXValue::map();
    for (std::uint32_t left = below(20); left > 0; --left) map.mapSet(text(), next(depth));
    return map;
  }

  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(engine_() % limit); }

  std::mt19937_64 engine_;
};

}  // namespace HX::kit
