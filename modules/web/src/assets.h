#pragma once

#include <span>
#include <string_view>

namespace HX::web {

/// A file of the page, as it was built into the module.
struct Asset {
  std::string_view path;  ///< "/" for the page itself; the others have a hash of their content in their names.
  std::string_view contentType;
  std::string_view tag;  ///< A hash of its content.
  std::string_view plain;
  std::string_view gzip;
};

/// All there are, the page first. Made by page/build.mjs; without Node by plainpage.cpp.
std::span<const Asset> assets();

}  // namespace HX::web
