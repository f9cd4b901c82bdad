#include "livetable.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace korvo {
namespace {

bool beginsCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xc0) != 0x80; }

std::size_t characters(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(text, beginsCharacter));
}

std::string padded(std::string text, std::size_t width) {
  const std::size_t used = characters(text);
  if (used < width) text.append(width - used, ' ');
  return text;
}

/// Besides the ASCII ones, terminals obey U+0080 to U+009F (in UTF-8: c2 80 to c2 9f).
std::string withoutControls(std::string_view text) {
  std::string shown;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {
      shown += '?';
      ++i;
    } else {
      shown += byte < 0x20 || byte == 0x7f ? '?' : text[i];
    }
  }
  return shown;
}

}  // namespace

std::string formatAge(std::chrono::nanoseconds age) {
  using namespace std::chrono;
  const double sec = std::max(0.0, duration<double>(age).count());
  if (sec < 10) return fmt::format("{:.1f}s", sec);
  if (sec < 120) return fmt::format("{:.0f}s", sec);
  if (sec < 120 * 60) return fmt::format("{:.0f}m", sec / 60);
  if (sec < 48 * 3600) return fmt::format("{:.0f}h", sec / 3600);
  return fmt::format("{:.0f}d", sec / 86400);
}

std::string fit(std::string_view text, std::size_t width) {
  std::string shown = withoutControls(text);
  if (characters(shown) <= width) return shown;
  if (width == 0) return {};
  std::size_t end = 0;
  for (std::size_t left = width; end < shown.size(); ++end) {
    if (beginsCharacter(shown[end]) && left-- == 1) break;
  }
  return shown.substr(0, end) + "…";
}

std::string formatRate(std::optional<double> rate) {
  if (!rate) return {};
  if (*rate <= 0) return "-";
  return *rate < 10 ? fmt::format("{:.1f}/s", *rate) : fmt::format("{:.0f}/s", *rate);
}

std::vector<std::string> drawTable(std::span<const LiveRow> rows, std::size_t width, mw::SystemTimePoint now) {
  const std::size_t unlimited = std::string::npos;
  std::size_t keyWidth = 3;
  for (const LiveRow& row : rows) keyWidth = std::max(keyWidth, characters(row.key));
  // A key may take half the line; what is left over goes to the value.
  if (width > 0) keyWidth = std::min(keyWidth, width / 2);
  const auto draw = [&](std::string_view key, const std::array<std::string, 5>& cells) {
    const auto& [kind, age, rate, subscribers, value] = cells;
    const std::string line = fmt::format("{}  {:<10}  {:>5}  {:>6}  {:>4}  {}", padded(fit(key, keyWidth), keyWidth),
                                         kind, age, rate, subscribers, fit(value, unlimited));
    return fit(line, width > 0 ? width : unlimited);
  };
  std::vector<std::string> lines{draw("KEY", {"KIND", "AGE", "RATE", "SUBS", "VALUE"})};
  for (const LiveRow& row : rows) {
    std::array<std::string, 5> cells;
    if (row.facts) {
      cells = {row.facts->kind, formatAge(now - row.facts->time), formatRate(row.rate),
               fmt::format("{}", row.facts->subscribers), HX::toJson(row.facts->value)};
    }
    lines.push_back(draw(row.key, cells));
  }
  return lines;
}

std::vector<std::string> splitKeys(std::string_view typed) {
  std::vector<std::string> keys;
  while (!typed.empty()) {
    std::size_t end = 1;
    if (typed.starts_with("\x1b[") || typed.starts_with("\x1bO")) {
      // Parameters, and then the one that ends it.
      end = 2;
      while (end < typed.size() && typed[end] < '@') ++end;
      end = std::min(end + 1, typed.size());
    } else {
      while (end < typed.size() && !beginsCharacter(typed[end])) ++end;
    }
    keys.emplace_back(typed.substr(0, end));
    typed.remove_prefix(end);
  }
  return keys;
}

}  // namespace korvo
