#include <libmw/text.h>

#include <iterator>

#include <fmt/format.h>

namespace mw {

std::string escapeControls(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if (byte == '\n') {
      line += "\\n";
    } else if (byte == '\r') {
      line += "\\r";
    } else if (byte == '\t') {
      line += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", byte);
    } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {  // U+0080 to U+009F in UTF-8.
      fmt::format_to(std::back_inserter(line), "\\u{:04x}", next);
      ++i;
    } else {
      line += text[i];
    }
  }
  return line;
}

}  // namespace mw
