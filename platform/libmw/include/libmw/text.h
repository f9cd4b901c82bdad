#pragma once

#include <hxerror/api.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace mw {

/// `text` on one line that steers no terminal: line ends and control characters, U+0080 to U+009F included, as escapes
/// (`\n`, `\x1b`, `\u009b`), everything else as it is, bytes that are not UTF-8 too.
///
/// @par Threads  Any.
HX_API std::string escapeControls(std::string_view text);

/// `text` with its middle left out, where it is longer than is good to read: "begin… 65436 bytes …end". Takes no UTF-8
/// character apart.
///
/// @param text  UTF-8, as a rule.
/// @param most  About as many bytes are kept.
/// @par Threads  Any.
HX_API std::string shorten(std::string_view text, std::size_t most = 100);

}  // namespace mw
