#include "celltext.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cmath>
#include <cwchar>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;

/// How wide characters are is told by a locale that knows them, whatever the person's own is.
class WideLocale {
 public:
  WideLocale() : before_(uselocale(known())) {}
  WideLocale(const WideLocale&) = delete;
  WideLocale& operator=(const WideLocale&) = delete;
  ~WideLocale() { uselocale(before_); }

 private:
  static locale_t known() {
    static const locale_t the = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return the;  // Null, where the system lacks it, changes nothing.
  }
  const locale_t before_;
};

struct Character {
  std::size_t bytes = 1;
  std::size_t columns = 1;
  bool isShown = true;  ///< False for what a question mark stands for.
};

unsigned byteAt(std::string_view text, std::size_t index) {
  return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;
}

/// The first character of a text that is not empty.
Character firstOf(std::string_view text) {
  const unsigned lead = byteAt(text, 0);
  if (lead < 0x80) return {1, 1, lead >= 0x20 && lead != 0x7f};
  const std::size_t bytes = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  wchar_t code = static_cast<wchar_t>(lead & (0xffU >> (bytes + 1)));
  for (std::size_t i = 1; i < bytes; ++i) {
    const unsigned next = byteAt(text, i);
    if (lead < 0xc2 || (next & 0xc0U) != 0x80) return {1, 1, false};
    code = static_cast<wchar_t>(static_cast<unsigned>(code) << 6U | (next & 0x3fU));
  }
  const int columns = wcwidth(code);
  // U+0080 to U+009F, and what no character is.
  if (columns < 0) return {bytes, 1, false};
  return {bytes, static_cast<std::size_t>(columns), true};
}

std::string briefNumber(double number) {
  std::string text = fmt::format("{:.6g}", number);
  if (text.find_first_not_of("-0123456789") == std::string::npos) text += ".0";
  return text;
}

void appendBrief(std::string& text, const HXValue& value, std::size_t limit) {
  if (text.size() > limit) return;
  if (value.isFloat() || value.isDouble()) {
    text += briefNumber(value.toDouble());
  } else if (const auto* string = value.stringIf()) {
    text += HX::toJson(HXValue(std::string_view(*string).substr(0, limit)));
  } else if (const auto* bytes = value.binaryIf()) {
    text += fmt::format("<{} bytes>", bytes->size());
  } else if (const auto* list = value.listIf()) {
    text += '[';
    for (std::size_t i = 0; i < list->size() && text.size() <= limit; ++i) {
      if (i > 0) text += ", ";
      appendBrief(text, (*list)[i], limit);
    }
    text += ']';
  } else if (const auto* map = value.mapIf()) {
    text += '{';
    bool isFirst = true;
    for (const auto& [name, entry] : *map) {
      if (text.size() > limit) break;
      text += (std::exchange(isFirst, false) ? "" : ", ") + HX::toJson(HXValue(name)) + ": ";
      appendBrief(text, entry, limit);
    }
    text += '}';
  } else {
    text += HX::toJson(value);
  }
}

}  // namespace

std::size_t columnsOf(std::string_view text) {
  const WideLocale locale;
  std::size_t columns = 0;
  while (!text.empty()) {
    const Character first = firstOf(text);
    columns += first.columns;
    text.remove_prefix(first.bytes);
  }
  return columns;
}

std::string_view beginning(std::string_view text, std::size_t columns) {
  const WideLocale locale;
  std::size_t bytes = 0;
  for (std::size_t used = 0; bytes < text.size();) {
    const Character next = firstOf(text.substr(bytes));
    used += next.columns;
    if (used > columns) break;
    bytes += next.bytes;
  }
  return text.substr(0, bytes);
}

std::string fit(std::string_view text, std::size_t columns) {
  const WideLocale locale;
  const bool isCut = beginning(text, columns).size() < text.size();
  if (isCut && columns == 0) return {};
  std::string shown;
  for (auto rest = isCut ? beginning(text, columns - 1) : text; !rest.empty();) {
    const Character first = firstOf(rest);
    shown += first.isShown ? rest.substr(0, first.bytes) : "?";
    rest.remove_prefix(first.bytes);
  }
  return isCut ? shown + "…" : shown;
}

std::string padded(std::string_view text, std::size_t columns) {
  std::string shown = fit(text, columns);
  return shown.append(columns - columnsOf(shown), ' ');
}

std::string rightAligned(std::string_view text, std::size_t columns) {
  const std::string shown = fit(text, columns);
  return std::string(columns - columnsOf(shown), ' ') + shown;
}

std::string briefText(const HXValue& value, std::size_t columns) {
  constexpr std::size_t kBytesOfAColumn = 4;
  constexpr std::size_t kUnlimited = std::string::npos;
  std::string text;
  appendBrief(text, value, columns > kUnlimited / kBytesOfAColumn ? kUnlimited : columns * kBytesOfAColumn);
  return text;
}

std::string sparkline(const std::vector<double>& numbers) {
  constexpr std::array<std::string_view, 8> kBars{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  if (numbers.empty()) return {};
  const auto [least, greatest] = std::ranges::minmax(numbers);
  const double span = greatest - least;
  std::string line;
  for (const double number : numbers) {
    // What does not change is in the middle.
    const double part = span > 0 && std::isfinite(span) ? (number - least) / span : 0.4;
    line += kBars[static_cast<std::size_t>(std::lround(std::clamp(part, 0.0, 1.0) * (kBars.size() - 1)))];
  }
  return line;
}

std::vector<std::string> splitKeys(std::string_view typed) {
  std::vector<std::string> keys;
  while (!typed.empty()) {
    std::size_t end = firstOf(typed).bytes;
    if (typed.starts_with("\x1b[") || typed.starts_with("\x1bO")) {
      // Parameters, and then the one that ends it.
      end = 2;
      while (end < typed.size() && typed[end] < '@') ++end;
      end = std::min(end + 1, typed.size());
    }
    keys.emplace_back(typed.substr(0, end));
    typed.remove_prefix(end);
  }
  return keys;
}

}  // namespace korvo
