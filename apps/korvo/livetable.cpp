#include "livetable.h"

#include "format.h"

#include <hxcommon/hxproxy.h>
#include <hxerror/hxerror.h>
#include <hxvalue/json.h>
#include <libmw/future.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

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

std::vector<LiveRow> readRows(const HX::HXProxy& memory, std::span<const std::string> keys, mw::SystemTimePoint now) {
  const mw::AnyObject object = memory.asObject();
  std::vector<std::pair<mw::Future<mw::AnyValue>, mw::Future<mw::AnyValue>>> answers;
  answers.reserve(keys.size());
  for (const auto& key : keys) answers.emplace_back(object->async("getType", key), object->async("getTimestamp", key));
  std::vector<LiveRow> rows;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    try {
      auto kind = std::move(answers[i].first).take().take<std::string>();
      const Stamped stamped = toStamped(std::move(answers[i].second).take().take<HX::HXValue>());
      rows.push_back({keys[i], std::move(kind), HX::toJson(stamped.value), now - stamped.time});
    } catch (const HX::HXError&) {  // Removed since the keys were listed.
    }
  }
  return rows;
}

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

std::vector<std::string> drawTable(std::span<const LiveRow> rows, std::size_t width) {
  const std::size_t unlimited = std::string::npos;
  std::size_t keyWidth = 3;
  for (const LiveRow& row : rows) keyWidth = std::max(keyWidth, characters(row.key));
  // A key may take half the line; what is left over goes to the value.
  if (width > 0) keyWidth = std::min(keyWidth, width / 2);
  const auto draw = [&](std::string_view key, std::string_view kind, std::string_view age, std::string_view value) {
    const std::string line =
        fmt::format("{}  {:<10}  {:>5}  {}", padded(fit(key, keyWidth), keyWidth), kind, age, fit(value, unlimited));
    return fit(line, width > 0 ? width : unlimited);
  };
  std::vector<std::string> lines{draw("KEY", "KIND", "AGE", "VALUE")};
  for (const LiveRow& row : rows) lines.push_back(draw(row.key, row.kind, formatAge(row.age), row.value));
  return lines;
}

}  // namespace korvo
