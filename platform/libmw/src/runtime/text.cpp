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

std::string shorten(std::string_view text, std::size_t most) {
  constexpr std::size_t kWords = 32;  // What stands for the middle is no longer than that.
  if (text.size() <= most + kWords) return std::string(text);
  const auto isInside = [](char c) { return (static_cast<unsigned char>(c) & 0xc0U) == 0x80U; };
  // As far as a character of UTF-8 can reach: other bytes of that kind are no characters.
  std::size_t begin = 3 * most / 4;
  for (int i = 0; i < 3 && begin > 0 && isInside(text[begin]); ++i) --begin;
  std::size_t end = text.size() - most / 4;
  for (int i = 0; i < 3 && end < text.size() && isInside(text[end]); ++i) ++end;
  return fmt::format("{}… {} bytes …{}", text.substr(0, begin), end - begin, text.substr(end));
}

}  // namespace mw
