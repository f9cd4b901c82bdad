#include "shape.h"

#include "error.h"
#include "records.h"

#include <hxvalue/base64.h>
#include <hxvalue/json.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

namespace HX::recording {
namespace {

using Type = HXValue::Type;

constexpr std::size_t kDeepest = 8;    // Beyond, nobody plots it.
constexpr std::size_t kFields = 128;   // Of a map.
constexpr std::size_t kElements = 16;  // Of a list whose elements are not alike.
const char* const kUnknown = "*";
const char* const kEmptyList = "List";

constexpr std::array kLeaves{Type::Invalid, Type::Bool,   Type::Int,    Type::Int64,
                             Type::Float,   Type::Double, Type::String, Type::Binary};

HXValue describeValue(const HXValue& value, std::size_t depth);

HXValue describeList(const HXValue::List& list, std::size_t depth) {
  if (list.empty()) return kEmptyList;
  HXValue::List shapes{describeValue(list.front(), depth + 1)};
  bool areAlike = true;
  for (std::size_t i = 1; i < list.size(); ++i) {
    HXValue shape = describeValue(list[i], depth + 1);
    areAlike = areAlike && shape == shapes.front();
    if (areAlike) continue;
    if (list.size() > kElements) return kUnknown;
    while (shapes.size() < i) shapes.push_back(shapes.front());
    shapes.push_back(std::move(shape));
  }
  return shapes;
}

HXValue describeValue(const HXValue& value, std::size_t depth) {
  if (!value.isList() && !value.isMap()) return HXValue::TypeToString(value.getType());
  if (depth > kDeepest) return kUnknown;
  if (const auto* list = value.listIf()) return describeList(*list, depth);
  if (value.getSize() > kFields) return kUnknown;
  HXValue::Map fields;
  for (const auto& [name, field] : value.asMap())
    fields.emplace_hint(fields.end(), name, describeValue(field, depth + 1));
  return fields;
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as a description is, which is bounded.
bool fitsShape(const HXValue& value, const HXValue& shape) {
  if (const auto* name = shape.stringIf()) {
    if (*name == kEmptyList) return value.isList() && value.getSize() == 0;
    return *name == HXValue::TypeToString(value.getType());
  }
  if (const auto* fields = shape.mapIf()) {
    const auto* map = value.mapIf();
    return map && std::ranges::equal(*map, *fields, [](const auto& field, const auto& wanted) {
             return field.first == wanted.first && fitsShape(field.second, wanted.second);
           });
  }
  const auto* list = value.listIf();
  const auto& elements = shape.asList();
  if (!list || list->empty()) return false;
  if (elements.size() == 1) {
    return std::ranges::all_of(*list, [&](const HXValue& element) { return fitsShape(element, elements.front()); });
  }
  return std::ranges::equal(*list, elements, fitsShape);
}

/// Empty for what has none that viewers take.
// NOLINTNEXTLINE(misc-no-recursion): as above.
std::string schemaOf(const HXValue& shape) {
  if (const auto* name = shape.stringIf()) {
    if (*name == "Bool") return R"({"type":"boolean"})";
    if (*name == "Int" || *name == "Int64") return R"({"type":"integer"})";
    if (*name == "Float" || *name == "Double") return R"({"type":"number"})";
    if (*name == "String") return R"({"type":"string"})";
    if (*name == "Binary") return R"({"type":"string","contentEncoding":"base64"})";
    return {};
  }
  if (const auto* fields = shape.mapIf()) {
    std::string properties;
    for (const auto& [name, field] : *fields) {
      const std::string schema = schemaOf(field);
      if (schema.empty()) continue;
      properties += fmt::format("{}{}:{}", properties.empty() ? "" : ",", toJson(name), schema);
    }
    return fmt::format(R"({{"type":"object","properties":{{{}}}}})", properties);
  }
  // Lists of lists and of different things are what viewers' readers of schemas fail at.
  const auto& elements = shape.asList();
  if (elements.size() != 1 || elements.front().isList()) return {};
  const std::string items = schemaOf(elements.front());
  return items.empty() ? items : fmt::format(R"({{"type":"array","items":{}}})", items);
}

std::string_view bytesOf(const HXValue::Binary& binary) {
  return {reinterpret_cast<const char*>(binary.data()), binary.size()};
}

/// The value with each binary that the shape tells of as base64.
// NOLINTNEXTLINE(misc-no-recursion): as above.
HXValue withTexts(const HXValue& value, const HXValue& shape) {
  if (const auto* binary = value.binaryIf()) return toBase64(bytesOf(*binary));
  if (const auto* map = value.mapIf(); map && shape.isMap()) {
    HXValue::Map fields;
    for (const auto& [name, field] : *map) fields.emplace_hint(fields.end(), name, withTexts(field, shape[name]));
    return fields;
  }
  if (const auto* list = value.listIf(); list && shape.isList()) {
    const auto& shapes = shape.asList();
    HXValue::List elements;
    for (std::size_t i = 0; i < list->size(); ++i)
      elements.push_back(withTexts((*list)[i], shapes[shapes.size() == 1 ? 0 : i]));
    return elements;
  }
  return value;
}

/// Numbers that JSON has no place for are somewhere in it.
// NOLINTNEXTLINE(misc-no-recursion): as above; called for what a description tells whole.
bool hasNoNumber(const HXValue& value) {
  if (value.isFloat()) return !std::isfinite(value.asFloat());
  if (value.isDouble()) return !std::isfinite(value.asDouble());
  if (const auto* list = value.listIf()) return std::ranges::any_of(*list, hasNoNumber);
  if (const auto* map = value.mapIf()) {
    return std::ranges::any_of(*map, [](const auto& field) { return hasNoNumber(field.second); });
  }
  return false;
}

HXValue leafOf(const HXValue& json, const std::string& type) {
  if (type == "Float") return json.toFloat();
  if (type == "Double") return json.toDouble();
  if (type == "Int64") return json.toInt64();
  if (type == "Binary") {
    const std::string bytes = fromBase64(json.asString());
    return HXValue::binary(std::as_bytes(std::span(bytes)));
  }
  return json;
}

// NOLINTNEXTLINE(misc-no-recursion): as above.
HXValue restored(const HXValue& json, const HXValue& shape) {
  if (const auto* type = shape.stringIf()) return leafOf(json, *type);
  if (const auto* fields = shape.mapIf()) {
    HXValue::Map map;
    for (const auto& [name, field] : *fields) map.emplace_hint(map.end(), name, restored(json[name], field));
    return map;
  }
  const auto& shapes = shape.asList();
  const auto& elements = json.asList();
  if (shapes.size() > 1 && shapes.size() != elements.size()) throw RecordingError("a list has another length");
  HXValue::List list;
  for (std::size_t i = 0; i < elements.size(); ++i)
    list.push_back(restored(elements[i], shapes[shapes.size() == 1 ? 0 : i]));
  return list;
}

/// The message of a scalar, which nearly all are. @return False for what is none.
bool writeScalar(const HXValue& value, std::string& text) {
  std::array<char, 32> digits{};
  const auto print = [&](auto number) {
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    text.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
  };
  if (value.isBool()) return text += value.asBool() ? "true" : "false", true;
  if (value.isInt()) return print(value.asInt()), true;
  if (value.isInt64()) return print(value.asInt64()), true;
  return false;
}

}  // namespace

Shape::Shape() : Shape(HXValue()) {}

Shape::Shape(const HXValue& value) : description_(describeValue(value, 0)) { describe(); }

Shape Shape::parse(const std::string& text) {
  // NOLINTNEXTLINE(misc-no-recursion): as deep as JSON may be.
  const auto isShape = [](const auto& self, const HXValue& shape) -> bool {
    if (const auto* name = shape.stringIf()) {
      if (*name == kUnknown || *name == kEmptyList) return true;
      return std::ranges::any_of(kLeaves, [&](Type type) { return *name == HXValue::TypeToString(type); });
    }
    if (const auto* fields = shape.mapIf()) {
      return std::ranges::all_of(*fields, [&](const auto& field) { return self(self, field.second); });
    }
    return shape.isList() && shape.getSize() > 0 &&
           std::ranges::all_of(shape.asList(), [&](const HXValue& element) { return self(self, element); });
  };
  Shape shape;
  try {
    shape.description_ = fromJson(text);
  } catch (const std::runtime_error&) {
    shape.description_ = HXValue();
  }
  if (!isShape(isShape, shape.description_))
    throw RecordingError(fmt::format("{} is no shape of values", text.substr(0, 80)));
  shape.describe();
  return shape;
}

void Shape::describe() {
  text_ = toJson(description_);
  // NOLINTNEXTLINE(misc-no-recursion): as above.
  const auto look = [this](const auto& self, const HXValue& shape) -> void {
    if (const auto* name = shape.stringIf()) {
      hasBinary_ |= *name == "Binary";
      isWhole_ &= *name != kUnknown;
    } else if (const auto* fields = shape.mapIf()) {
      for (const auto& field : *fields) self(self, field.second);
    } else {
      for (const HXValue& element : shape.asList()) self(self, element);
    }
  };
  hasBinary_ = false;
  isWhole_ = true;
  look(look, description_);
}

bool Shape::fits(const HXValue& value) const { return fitsShape(value, description_); }

std::string Shape::schemaName() const {
  if (const auto* name = description_.stringIf()) {
    if (*name == "Int" || *name == "Int64") return "korvo.Integer";
    if (*name == "Float" || *name == "Double") return "korvo.Number";
    return *name == kUnknown || *name == kEmptyList || *name == "Invalid" ? "korvo.Any" : "korvo." + *name;
  }
  // By what it says, so that lists of floats and of doubles share one.
  return fmt::format("korvo.{}.{:08x}", description_.isMap() ? "Map" : "List", crc32(schemaText()));
}

std::string Shape::schemaText() const {
  const std::string schema = schemaOf(description_);
  return fmt::format(R"({{"type":"object","properties":{{{}{}}}}})", schema.empty() ? "" : "\"value\":", schema);
}

Shape::MessageText Shape::messageOf(const HXValue& value) const {
  MessageText message{R"({"value":)", isWhole_};
  if (!writeScalar(value, message.text)) {
    JsonText json = toJsonText(hasBinary_ ? withTexts(value, description_) : value);
    message.text += json.text;
    message.isExact = isWhole_ && !json.replaced && !hasNoNumber(value);
  }
  message.text += '}';
  return message;
}

HXValue Shape::valueOf(const HXValue& json) const {
  try {
    return restored(json, description_);
  } catch (const std::runtime_error& error) {
    throw RecordingError(fmt::format("a value is not {}: {}", text_.substr(0, 80), error.what()));
  }
}

}  // namespace HX::recording
