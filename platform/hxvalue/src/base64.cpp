#include <hxvalue/base64.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace HX {
namespace {

constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string toBase64(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::string_view group = bytes.substr(i, 3);
    std::uint32_t bits = 0;
    for (std::size_t j = 0; j < 3; ++j)
      bits = (bits << 8U) | (j < group.size() ? static_cast<unsigned char>(group[j]) : 0U);
    for (std::size_t j = 0; j < 4; ++j) text += j <= group.size() ? kBase64[(bits >> (18U - 6U * j)) & 63U] : '=';
  }
  return text;
}

std::string fromBase64(std::string_view text) {
  if (text.size() % 4 != 0) throw std::runtime_error("base64 is cut short");
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    std::string_view group = text.substr(i, 4);
    if (i + 4 == text.size()) group = group.substr(0, group.find_last_not_of('=') + 1);
    if (group.size() < 2) throw std::runtime_error("base64 ends in the middle of a byte");
    std::uint32_t bits = 0;
    for (std::size_t j = 0; j < 4; ++j) {
      const std::size_t digit = j < group.size() ? kBase64.find(group[j]) : 0;
      if (digit == std::string_view::npos) throw std::runtime_error("base64 has a character that is none of it");
      bits = (bits << 6U) | static_cast<std::uint32_t>(digit);
    }
    for (std::size_t j = 0; j + 1 < group.size(); ++j) bytes += static_cast<char>((bits >> (16U - 8U * j)) & 255U);
  }
  return bytes;
}

}  // namespace HX
