#pragma once

#include <hxerror/api.h>

#include <string>
#include <string_view>

namespace mw {

/// `text` on one line that steers no terminal: line ends and control characters, U+0080 to U+009F included, as escapes
/// (`\n`, `\x1b`, `\u009b`), everything else as it is, bytes that are not UTF-8 too.
///
/// @par Threads  Any.
HX_API std::string escapeControls(std::string_view text);

}  // namespace mw
