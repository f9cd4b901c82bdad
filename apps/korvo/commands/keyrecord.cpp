#include "keyrecord.h"

#include "base/format.h"

#include <hxvalue/json.h>
#include <hxvalue/msgpack.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;
using Bytes = std::vector<std::byte>;

std::string toHex(const Bytes& bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const std::byte byte : bytes) {
    text += kDigits[std::to_integer<std::size_t>(byte >> 4)];
    text += kDigits[std::to_integer<std::size_t>(byte & std::byte{15})];
  }
  return text;
}

Bytes fromHex(const std::string& text) {
  Bytes bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    unsigned char byte = 0;
    const char* const begin = text.data() + i;
    const char* const end = text.data() + std::min(i + 2, text.size());
    if (end - begin != 2 || std::from_chars(begin, end, byte, 16).ptr != end) {
      throw std::runtime_error(fmt::format("msgpack: no hexadecimal digits at character {}", i + 1));
    }
    bytes.push_back(std::byte{byte});
  }
  return bytes;
}

/// Whether a value comes back from its JSON as it was, its type included.
bool survivesJson(const HXValue& value, const std::string& json) {
  try {
    return HX::fromJson(json) == value;
  } catch (const std::runtime_error&) {  // Nested too deep, for instance.
    return false;
  }
}

/// The member of that name as a string, `otherwise` when it is missing.
std::string textOf(const HXValue& record, const std::string& name, std::string otherwise) {
  const HXValue* const found = record.find(name);
  if (!found) return otherwise;
  if (const std::string* text = found->stringIf()) return *text;
  throw std::runtime_error(fmt::format("{} is no string", name));
}

}  // namespace

std::string toLine(const KeyRecord& record) {
  JsonObject line;
  line.add("key", record.key).add("kind", record.kind);
  const std::string json = HX::toJson(record.value);
  line.addText("value", json);
  if (!survivesJson(record.value, json)) line.add("msgpack", toHex(HX::toMsgpack(record.value)));
  return line.add("description", record.description).text();
}

KeyRecord toRecord(std::string_view line) {
  const HXValue object = HX::fromJson(line);
  if (!object.isMap()) throw std::runtime_error("it is no object of JSON");
  KeyRecord record;
  if (!object.find("key")) throw std::runtime_error("it has no key");
  record.key = textOf(object, "key", "");
  record.kind = textOf(object, "kind", record.kind);
  record.description = textOf(object, "description", "");
  if (record.kind != "Data" && record.kind != "Event" && record.kind != "MicroEvent") {
    throw std::runtime_error(fmt::format("{} is no kind: there is Data, Event and MicroEvent", excerpt(record.kind)));
  }
  if (const std::string exact = textOf(object, "msgpack", ""); !exact.empty()) {
    record.value = HX::fromMsgpack(fromHex(exact));
  } else if (const HXValue* const value = object.find("value")) {
    record.value = *value;
  } else {
    throw std::runtime_error("it has no value");
  }
  return record;
}

std::vector<mw::Future<mw::AnyValue>> store(mw::GenericObject& memory, const KeyRecord& record) {
  std::vector<mw::Future<mw::AnyValue>> answers;
  if (record.kind == "Data") {
    answers.push_back(memory.async("insertData", record.key, record.value));
  } else if (record.kind == "MicroEvent") {
    answers.push_back(memory.async("raiseMicroEvent", record.key, record.value));
  } else if (record.value.isValid()) {
    answers.push_back(memory.async("raiseEvent", record.key, record.value));
  } else {
    answers.push_back(memory.async("declareEvent", record.key));
  }
  if (!record.description.empty()) {
    answers.push_back(memory.async("setDescription", record.key, record.description));
  }
  return answers;
}

}  // namespace korvo
