#pragma once

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace HX {

/// Lists and maps inside one another that a JSON text may have. Deeper ones are no data that anyone means.
inline constexpr std::size_t kMaxJsonDepth = 512;

/// Reads one JSON text (RFC 8259, UTF-8).
///
/// Numbers without fraction and exponent become an Int when they fit 32 bits, else an Int64; others, `1.0` and `1e3`
/// included, a Double. null becomes the invalid value, an array a List, an object a Map.
///
/// @throws std::runtime_error  one line with line and column: not JSON, text left over, integer beyond 64 bits,
///   decimal beyond the range of double, nested deeper than `kMaxJsonDepth`, a key that occurs twice in one object
///   (either choice would lose data).
/// @par Threads  Any.
HX_API HXValue fromJson(std::string_view text);

/// A JSON text, and whether it tells all.
struct JsonText {
  std::string text;
  /// Some string, key or binary was not UTF-8, and U+FFFD stands for what cannot be written.
  bool replaced = false;
};

/// Writes one line of JSON.
///
/// Float and Double print as the shortest decimal that reads back as the same number of that type, always with a
/// fraction or an exponent, so that they stay decimals. JSON has no place for some values: NaN and the infinities
/// print as null, like the invalid value; a Binary prints as the string of its bytes. Which of Int and Int64 and which
/// of Float and Double it was is not told; what was valid JSON reads back equal.
///
/// @par Threads  Any.
HX_API JsonText toJsonText(const HXValue& value);

/// `toJsonText` for callers who have no use for the flag.
HX_API std::string toJson(const HXValue& value);

}  // namespace HX
