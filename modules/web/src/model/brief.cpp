#include "brief.h"

#include <charconv>

#include <fmt/format.h>

namespace HX::web {
namespace {

constexpr std::size_t kDeepest = 8;

/// The longest beginning of at most `most` bytes that does not end within a character.
std::string_view beginning(std::string_view text, std::size_t most) {
  if (text.size() <= most) return text;
  while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0U) == 0x80U) --most;
  return text.substr(0, most);
}

void append(std::string& line, const HXValue& value, std::size_t most, std::size_t depth);

void appendText(std::string& line, const std::string& text, std::size_t most) {
  const std::size_t room = most > line.size() ? most - line.size() : 0;
  const std::string_view shown = beginning(text, room);
  line += HXValue(shown).toString();
  if (shown.size() == text.size()) return;
  line.pop_back();
  line += "…\"";
}

void appendList(std::string& line, const HXValue::List& list, std::size_t most, std::size_t depth) {
  line += '[';
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (i > 0) line += ", ";
    if (line.size() >= most || depth >= kDeepest) {
      line += fmt::format("… {} in all", list.size());
      break;
    }
    append(line, list[i], most, depth + 1);
  }
  line += ']';
}

void appendMap(std::string& line, const HXValue::Map& map, std::size_t most, std::size_t depth) {
  line += '{';
  bool isFirst = true;
  for (const auto& [name, entry] : map) {
    if (!isFirst) line += ", ";
    isFirst = false;
    if (line.size() >= most || depth >= kDeepest) {
      line += fmt::format("… {} in all", map.size());
      break;
    }
    line += beginning(name, most);
    line += ": ";
    append(line, entry, most, depth + 1);
  }
  line += '}';
}

void append(std::string& line, const HXValue& value, std::size_t most, std::size_t depth) {
  if (const auto* text = value.stringIf()) return appendText(line, *text, most);
  if (const auto* list = value.listIf()) return appendList(line, *list, most, depth);
  if (const auto* map = value.mapIf()) return appendMap(line, *map, most, depth);
  line += value.toString();
}

}  // namespace

std::string brief(const HXValue& value, std::size_t most) {
  std::string line;
  append(line, value, most, 0);
  return line;
}

std::optional<double> numberAt(const HXValue& value, const ValuePath& path) {
  const HXValue* at = &value;
  for (const std::string& step : path) {
    if (const auto* list = at->listIf()) {
      std::size_t place = 0;
      const auto [end, error] = std::from_chars(step.data(), step.data() + step.size(), place);
      if (error != std::errc() || end != step.data() + step.size() || place >= list->size()) return std::nullopt;
      at = &(*list)[place];
    } else {
      at = at->find(step);
      if (!at) return std::nullopt;
    }
  }
  if (at->isBool()) return at->asBool() ? 1 : 0;
  if (!at->isScalar()) return std::nullopt;
  return at->toDouble();
}

}  // namespace HX::web
