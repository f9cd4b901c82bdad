#pragma once

#include <hxvalue/hxvalue.h>

#include <string>

namespace HX {

/// The shape of a value that is written as JSON: what viewers want to know before they offer its parts.
struct JsonSchema {
  std::string name;  ///< "korvo.Number", "korvo.Map.3fa2b6c1": the same for the same text, and another for another.
  std::string text;  ///< JSON Schema of the object that `toJsonMessage` writes.

  friend bool operator==(const JsonSchema&, const JsonSchema&) = default;
};

/// Writes a value as the object {"value": …}, for formats whose messages are objects: as `toJson`, but for binaries,
/// which become base64. What is nested deeper than JSON readers take is null.
///
/// @param value  The value.
/// @return One line of JSON.
/// @par Threads  Any.
HX_API std::string toJsonMessage(const HXValue& value);

/// The schema of `toJsonMessage(value)`. A part that has no type of its own, such as a list of mixed elements or an
/// empty one, is left out of it: viewers refuse schemas that allow several types, and read what is left out all the
/// same.
///
/// @param value  The value.
/// @return Equal for values of one shape.
/// @par Threads  Any.
HX_API JsonSchema jsonSchemaOf(const HXValue& value);

}  // namespace HX
