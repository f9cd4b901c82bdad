#pragma once

#include <hxerror/api.h>

#include <string>
#include <string_view>

namespace HX {

/// Writes bytes in base64, filled up with `=`: how JSON carries what is no text.
/// @param bytes  Any.
/// @return Four characters for three bytes.
/// @par Threads  Any.
HX_API std::string toBase64(std::string_view bytes);

/// Reads what `toBase64` writes.
/// @param text  Of anyone.
/// @return The bytes.
/// @throws std::runtime_error saying what is wrong with the text.
/// @par Threads  Any.
HX_API std::string fromBase64(std::string_view text);

}  // namespace HX
