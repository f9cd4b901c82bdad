#pragma once

#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>

#include <string>
#include <string_view>

namespace HX {

/// What is written beside a value's JSON where that does not read back as the same value, its type included: a Float, a
/// Binary, an Int64 that fits 32 bits, a NaN, a text that is not UTF-8, lists and maps with one of these in them.
///
/// @param value  Any value.
/// @return Its MessagePack in hexadecimal; empty where the JSON tells all.
/// @throws std::runtime_error as `toMsgpack`.
/// @par Threads  Any.
HX_API std::string exactHex(const HXValue& value);

/// The inverse.
/// @param digits  As `exactHex` gives them.
/// @return The value.
/// @throws std::runtime_error saying which character is no digit, and as `fromMsgpack`.
/// @par Threads  Any.
HX_API HXValue fromExactHex(std::string_view digits);

}  // namespace HX
