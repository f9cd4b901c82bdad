#include <hxvalue/base64.h>
#include <hxvalue/json.h>
#include <hxvalue/jsonschema.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace HX {
namespace {

/// Deeper parts have no schema: nobody looks for them there, and a schema is written for every shape.
constexpr std::size_t kDeepest = 16;
/// One level is the message's own.
constexpr std::size_t kDeepestMessage = kMaxJsonDepth - 1;

std::string textOf(const HXValue::Binary& bytes) {
  return toBase64({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

/// Whether the value is written otherwise than `toJson` writes it.
bool needsRewriting(const HXValue& value, std::size_t depth) {
  if (value.isBinary()) return true;
  if (!value.isList() && !value.isMap()) return false;
  if (depth == kDeepestMessage) return true;
  const auto needs = [depth](const HXValue& part) { return needsRewriting(part, depth + 1); };
  if (const auto* list = value.listIf()) return std::ranges::any_of(*list, needs);
  return std::ranges::any_of(value.asMap(), [&](const auto& entry) { return needs(entry.second); });
}

HXValue rewritten(const HXValue& value, std::size_t depth) {
  if (const auto* bytes = value.binaryIf()) return textOf(*bytes);
  if (!value.isList() && !value.isMap()) return value;
  if (depth == kDeepestMessage) return {};
  if (const auto* list = value.listIf()) {
    HXValue::List parts;
    for (const HXValue& part : *list) parts.push_back(rewritten(part, depth + 1));
    return parts;
  }
  HXValue::Map entries;
  for (const auto& [name, part] : value.asMap()) entries.emplace(name, rewritten(part, depth + 1));
  return entries;
}

std::optional<std::string> partSchema(const HXValue& value, std::size_t depth);

std::optional<std::string> listSchema(const HXValue::List& list, std::size_t depth) {
  const bool isOfNumbers =
      std::ranges::all_of(list, [](const auto& each) { return each.isScalar() && !each.isBool(); });
  const auto isInteger = [](const HXValue& each) { return each.isInt() || each.isInt64(); };
  if (list.empty() || list.front().isList()) return std::nullopt;
  std::optional<std::string> items = partSchema(list.front(), depth + 1);
  if (isOfNumbers) {
    items = std::ranges::all_of(list, isInteger) ? R"({"type":"integer"})" : R"({"type":"number"})";
  } else {
    const auto isAlike = [&](const HXValue& each) { return partSchema(each, depth + 1) == items; };
    if (!items || !std::all_of(list.begin() + 1, list.end(), isAlike)) return std::nullopt;
  }
  return R"({"type":"array","items":)" + *items + "}";
}

std::optional<std::string> mapSchema(const HXValue::Map& map, std::size_t depth) {
  std::string properties;
  for (const auto& [name, part] : map) {
    const auto schema = partSchema(part, depth + 1);
    if (!schema) continue;
    if (!properties.empty()) properties += ',';
    properties += toJson(name) + ':' + *schema;
  }
  if (properties.empty()) return std::nullopt;
  return R"({"type":"object","properties":{)" + properties + "}}";
}

/// @return None for what has no type that a schema can name.
std::optional<std::string> partSchema(const HXValue& value, std::size_t depth) {
  using Type = HXValue::Type;
  if (depth > kDeepest) return std::nullopt;
  switch (value.getType()) {
    case Type::Invalid:
      return std::nullopt;
    case Type::Bool:
      return R"({"type":"boolean"})";
    case Type::Int:
    case Type::Int64:
      return R"({"type":"integer"})";
    case Type::Float:
    case Type::Double:
      return R"({"type":"number"})";
    case Type::String:
      return R"({"type":"string"})";
    case Type::Binary:
      return R"({"type":"string","contentEncoding":"base64"})";
    case Type::List:
      return listSchema(value.asList(), depth);
    case Type::Map:
      return mapSchema(value.asMap(), depth);
  }
  return std::nullopt;
}

/// FNV-1a: a name has to be the same in every run and on every machine.
std::string hashOf(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::uint32_t hash = 2'166'136'261U;
  for (const char character : text) hash = (hash ^ static_cast<unsigned char>(character)) * 16'777'619U;
  std::string digits;
  for (int shift = 28; shift >= 0; shift -= 4) digits += kDigits[hash >> static_cast<unsigned>(shift) & 15U];
  return digits;
}

std::string nameOf(const HXValue& value, const std::string& schema) {
  using Type = HXValue::Type;
  switch (value.getType()) {
    case Type::Bool:
      return "korvo.Bool";
    case Type::Int:
    case Type::Int64:
      return "korvo.Integer";
    case Type::Float:
    case Type::Double:
      return "korvo.Number";
    case Type::String:
      return "korvo.String";
    case Type::Binary:
      return "korvo.Binary";
    default:
      return (value.isList() ? "korvo.List." : "korvo.Map.") + hashOf(schema);
  }
}

}  // namespace

std::string toJsonMessage(const HXValue& value) {
  return "{\"value\":" + toJson(needsRewriting(value, 1) ? rewritten(value, 1) : value) + "}";
}

JsonSchema jsonSchemaOf(const HXValue& value) {
  const auto part = partSchema(value, 0);
  if (!part) return {"korvo.Any", R"({"type":"object","properties":{}})"};
  return {nameOf(value, *part), R"({"type":"object","properties":{"value":)" + *part + "}}"};
}

}  // namespace HX
