#include "arguments.h"
#include "commands.h"
#include "describe.h"
#include "format.h"
#include "output.h"
#include "target.h"

#include <hxcommon/hxproxy.h>
#include <hxvalue/json.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;
using Values = std::vector<HXValue>;

std::vector<mw::AnyReference> references(const Values& values) {
  std::vector<mw::AnyReference> all;
  for (const HXValue& value : values) all.push_back(mw::AnyReference::of(value));
  return all;
}

/// Doubles that a float can stand for, as floats.
Values withFloats(Values values) {
  for (HXValue& value : values) {
    if (!value.isDouble()) continue;
    try {
      value = value.toFloat();
    } catch (const std::runtime_error&) {  // Too large, so a double it stays.
    }
  }
  return values;
}

/// A decimal in a JSON text does not say how wide it is. It is a double, unless only a float will do.
void suitDecimals(const mw::MetaObject& object, const std::string& method, Values& arguments) {
  const auto suits = [&](const Values& given) {
    return std::ranges::any_of(object.findMethods(method), [&](const mw::MetaMethod* candidate) {
      return candidate->dynamic || mw::fit(references(given), candidate->types) != mw::Fit::None;
    });
  };
  if (suits(arguments)) return;
  Values floats = withFloats(arguments);
  if (suits(floats)) arguments = std::move(floats);
}

void call(Context& context, Arguments& arguments) {
  const std::string service = arguments.word("SERVICE");
  const std::string method = arguments.word("METHOD");
  Values values = arguments.jsons("JSON");
  const mw::AnyObject object = context.target.require(service)->asObject();
  suitDecimals(object->metaObject(), method, values);
  const auto parameters = references(values);
  const mw::AnyValue result = object->metaCall(object->metaObject().resolve(method, parameters).id, parameters).take();
  if (const auto text = formatResult(result)) context.output.line(*text);
}

void emit(Context& context, Arguments& arguments) {
  const std::string service = arguments.word("SERVICE");
  const std::string signal = arguments.word("SIGNAL");
  const Values values = arguments.jsons("JSON");
  const mw::AnyObject object = context.target.require(service)->asObject();
  const int id = object->metaObject().signalId(signal);
  if (id < 0) throw std::runtime_error(fmt::format("{}.{}: no such signal", service, signal));
  object->metaPost(static_cast<unsigned>(id), references(values));
}

void services(Context& context, Arguments& arguments) {
  arguments.end();
  for (const auto& name : context.target.services()) context.output.line(HX::toJson(name));
}

void methods(Context& context, Arguments& arguments) {
  const std::string service = arguments.word("SERVICE");
  const bool asJson = arguments.takeFlag("--json");
  arguments.end();
  const mw::AnyObject object = context.target.require(service)->asObject();
  if (asJson) {
    context.output.line(methodsToJson(object->metaObject()));
  } else {
    for (const auto& line : describeObject(object->metaObject())) context.output.line(line);
  }
}

void load(Context& context, Arguments& arguments) {
  const std::string library = arguments.word("LIBRARY");
  arguments.end();
  context.target.loadModule(library);
}

void perf(Context& context, Arguments& arguments) {
  arguments.end();
  context.target.memory()._perf();
}

constexpr std::array kCommands{
    Command{"services", "", "Lists the services, one a line.", "", services},
    Command{"methods", "SERVICE [--json]", "Lists what a service offers, with its documentation.",
            "With --json the methods as one line: a list of name, description, flags, parameters, result.", methods},
    Command{"call", "SERVICE METHOD [JSON...]", "Calls a method and prints what it returns, if anything.",
            "A pointer is printed as a string with its address, an object as {\"object\":TYPE,\"id\":N}.\n"
            "Example: call HXMemory getListData [\"Battery\", \"Arm/Pose\"]",
            call},
    Command{"emit", "SERVICE SIGNAL [JSON...]", "Emits a signal of a service.", "", emit},
    Command{"load", "LIBRARY", "Loads a module library: a path with a slash in it, or a name.",
            "A name is looked for, as lib<name>.so, in the folders of KORVO_MODULE_PATH and in the installed ones.",
            load},
    Command{"perf", "", "Has the memory time its own insertions.", "", perf},
};

}  // namespace

std::span<const Command> serviceCommands() { return kCommands; }

}  // namespace korvo
