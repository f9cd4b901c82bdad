#include "keyrecord.h"

#include "base/format.h"

#include <hxvalue/exactjson.h>
#include <hxvalue/json.h>

#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;

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
  line.addText("value", HX::toJson(record.value));
  if (const std::string exact = HX::exactHex(record.value); !exact.empty()) line.add("msgpack", exact);
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
    record.value = HX::fromExactHex(exact);
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
