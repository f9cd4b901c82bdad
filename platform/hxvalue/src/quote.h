#pragma once

#include <string>
#include <string_view>

namespace HX {

struct Quoted {
  std::string text;
  bool replaced = false;  ///< U+FFFD stands for bytes that are not UTF-8.
};

/// `text` between double quotes with JSON's escapes, which stand for U+007F to U+009F too: terminals obey those.
Quoted quote(std::string_view text);

}  // namespace HX
