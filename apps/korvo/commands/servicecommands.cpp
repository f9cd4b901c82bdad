#include "arguments.h"
#include "base/format.h"
#include "base/output.h"
#include "base/suggestion.h"
#include "base/target.h"
#include "commands.h"
#include "describe.h"
#include "numbers.h"

#include <hxcommon/hxproxy.h>
#include <hxvalue/json.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

using Values = std::vector<HX::HXValue>;

/// @throws std::runtime_error with the name that may have been meant, where the object has no such member.
template <class Members>
[[noreturn]] void failMember(const std::string& service, const std::string& name, const char* what,
                             const Members& members) {
  std::vector<std::string> names;
  for (const auto& member : members) names.push_back(member.name);
  throw std::runtime_error(fmt::format("{}.{}: no such {}{}", service, excerpt(name), what, didYouMean(name, names)));
}

void call(Context& context, Arguments& arguments) {
  const bool asObject = arguments.has("--json");
  const std::string service = arguments.word("SERVICE");
  const std::string method = arguments.word("METHOD");
  Values values = arguments.jsons("JSON");
  const mw::AnyObject object = context.target.require(service)->asObject();
  const mw::MetaObject& offered = object->metaObject();
  if (offered.findMethods(method).empty()) failMember(service, method, "method", offered.methods());
  suitNumbers(offered, method, values);
  const auto parameters = references(values);
  const mw::AnyValue result = object->metaCall(offered.resolve(method, parameters).id, parameters).take();
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
  if (id < 0) failMember(service, signal, "signal", object->metaObject().signals());
  object->metaPost(static_cast<unsigned>(id), references(values));
  context.target.settle();
}

void services(Context& context, Arguments& arguments) {
  const bool asObjects = arguments.has("--json");
  arguments.end();
  for (const auto& name : context.target.services()) {
    context.output.line(asObjects ? JsonObject().add("service", name).text() : context.shown(name));
  }
}

void methods(Context& context, Arguments& arguments) {
  const bool asJson = arguments.has("--json");
  const std::string service = arguments.word("SERVICE");
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

constexpr Option kMethodsOptions[] = {{"--json", "", "Print the methods as one list of JSON, on one line"}};

constexpr std::array kServiceCommands{
    Command{"services", "", "Lists the services, one a line.", "With --json as {\"service\":NAME}.", "services",
            services, kJsonOnly},
    Command{"methods", "SERVICE", "Lists what a service offers, with its documentation.",
            "With --json the methods as one line: a list of name, description, flags, parameters, result.",
            "methods HXMemory", methods, kMethodsOptions},
    Command{"call", "SERVICE METHOD [JSON...]", "Calls a method and prints what it returns, if anything.",
            "A number suits every parameter that it fits in value: 1 a float, 2.0 an int, [1, 2.5] a list of floats.\n"
            "A pointer is printed as a string with its address, an object as {\"object\":TYPE,\"id\":N}.\n"
            "With --json as {\"result\":RESULT}, and {} for nothing.",
            "call HXMemory getListData '[\"Battery\", \"Arm/Pose\"]'", call, kJsonOnly},
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
