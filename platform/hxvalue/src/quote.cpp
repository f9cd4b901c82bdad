#include "quote.h"

#include <nlohmann/json.hpp>

namespace HX {
namespace {

/// What JSON may have as it is, and a terminal must not: U+007F, and U+0080 to U+009F, in UTF-8 c2 80 to c2 9f.
std::string withoutControls(std::string json) {
  if (json.find_first_of("\x7f\xc2") == std::string::npos) return json;
  std::string safe;
  for (std::size_t i = 0; i < json.size(); ++i) {
    if (json[i] == '\x7f') {
      safe += "\\u007f";
    } else if (json[i] == '\xc2' && static_cast<unsigned char>(json[i + 1]) < 0xa0) {
      const auto code = static_cast<unsigned char>(json[++i]);
      safe += code < 0x90 ? "\\u008" : "\\u009";
      safe += "0123456789abcdef"[code & 0xfU];
    } else {
      safe += json[i];
    }
  }
  return safe;
}

}  // namespace

Quoted quote(std::string_view text) {
  const nlohmann::json string(text);
  try {
    return {withoutControls(string.dump()), false};
  } catch (const nlohmann::json::type_error&) {
    return {withoutControls(string.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)), true};
  }
}

}  // namespace HX
