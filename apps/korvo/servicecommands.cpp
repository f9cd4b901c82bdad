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
  const bool asObject = arguments.takeFlag("--json");
  const std::string service = arguments.word("SERVICE");
  const std::string method = arguments.word("METHOD");
  Values values = arguments.jsons("JSON");
  const mw::AnyObject object = context.target.require(service)->asObject();
  suitDecimals(object->metaObject(), method, values);
  const auto parameters = references(values);
  const mw::AnyValue result = object->metaCall(object->metaObject().resolve(method, parameters).id, parameters).take();
  const auto text = formatResult(result);
  if (asObject) {
    context.output.line((text ? JsonObject().addText("result", *text) : JsonObject()).text());
  } else if (text) {
    context.output.line(*text);
  }
}

void emit(Context& context, Arguments& arguments) {
  const std::string service = arguments.word("SERVICE");
  const std::string signal = arguments.word("SIGNAL");
  const Values values = arguments.jsons("JSON");
  const mw::AnyObject object = context.target.require(service)->asObject();
  const int id = object->metaObject().signalId(signal);
  if (id < 0) throw std::runtime_error(fmt::format("{}.{}: no such signal", service, excerpt(signal)));
  object->metaPost(static_cast<unsigned>(id), references(values));
  context.target.settle();
}

void services(Context& context, Arguments& arguments) {
  const bool asObjects = arguments.takeFlag("--json");
  arguments.end();
  for (const auto& name : context.target.services()) {
    context.output.line(asObjects ? JsonObject().add("service", name).text() : HX::toJson(name));
  }
}

void methods(Context& context, Arguments& arguments) {
  const bool before = arguments.takeFlag("--json");
  const std::string service = arguments.word("SERVICE");
  const bool asJson = before || arguments.takeFlag("--json");
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

constexpr Flag kMethodsFlags[] = {{"--json", "Print the methods as one list of JSON, on one line"}};

constexpr std::array kServiceCommands{
    Command{"services", "", "Lists the services, one a line.", "With --json as {\"service\":NAME}.", "services",
            services, kJsonFlag},
    Command{"methods", "SERVICE", "Lists what a service offers, with its documentation.",
            "With --json the methods as one line: a list of name, description, flags, parameters, result.",
            "methods HXMemory", methods, kMethodsFlags},
    Command{"call", "SERVICE METHOD [JSON...]", "Calls a method and prints what it returns, if anything.",
            "A pointer is printed as a string with its address, an object as {\"object\":TYPE,\"id\":N}.\n"
            "With --json as {\"result\":RESULT}, and {} for nothing.",
            "call HXMemory getListData '[\"Battery\", \"Arm/Pose\"]'", call, kJsonFlag},
    Command{"emit", "SERVICE SIGNAL [JSON...]", "Emits a signal of a service.", "", "emit Motor stalled 3", emit},
    Command{"load", "LIBRARY", "Loads a module library into the broker: a path with a slash in it, or a name.",
            "A name is looked for, as lib<name>.so, in the folders of the broker's KORVO_MODULE_PATH and in the\n"
            "installed ones.",
            "load ./build/libarm.so", load},
    Command{"perf", "", "Has the memory time its own insertions.", "The broker prints the figures, on its output.",
            "perf", perf},
};

}  // namespace

std::span<const Command> serviceCommands() { return kServiceCommands; }

}  // namespace korvo
