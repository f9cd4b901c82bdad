#include "settingsverb.h"

#include "base/format.h"
#include "base/output.h"
#include "commands/commands.h"
#include "line/brokername.h"
#include "line/remotetarget.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxcommon/hxproxy.h>
#include <libmw/local.h>
#include <libmw/log.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;

/// From a module that runs, in the broker's process or in another one; invalid when there is none of that name.
HXValue askRunning(const std::string& broker, const std::string& module) {
  constexpr std::chrono::seconds kPatience{5};
  RemoteTarget target(broker, kPatience);
  const auto service = target.find(module);
  if (!service) return {};
  const auto methods = service->asObject()->metaObject().findMethods(HX::HXModuleCore::kSettingsMethod);
  const auto takesNothing = [](const mw::MetaMethod* method) { return !method->dynamic && method->types.empty(); };
  if (std::ranges::any_of(methods, takesNothing)) {
    HXValue told = service->call<HXValue>(HX::HXModuleCore::kSettingsMethod);
    if (told.find("module") && told.find("settings")) return told;
  }
  // It has none, or a method of that name for something else.
  return HXValue::map({{"module", module}, {"settings", HXValue::list()}});
}

/// From the library itself.
HXValue askLibrary(const std::string& library) {
  const auto broker = HX::HXBroker::create("settings");
  broker->loadModule("hxmemory");
  HXValue all = HXValue::list();
  for (const HX::ModuleDescription& made : broker->examineModule(library)) all.arrayPush(made.toValue());
  broker->shutdown();
  return all;
}

void printText(const HXValue& module, Output& output) {
  output.line(
      fmt::format("{}:{}", module["module"].asString(), module["settings"].getSize() == 0 ? " no settings" : ""));
  for (const HXValue& setting : module["settings"].asList()) {
    output.line(fmt::format("  {} = {}  # {}", setting["name"].asString(), setting["value"].toString(),
                            setting["range"].asString()));
    output.line(fmt::format("      {}", setting["text"].asString()));
  }
}

int printSettings(const std::string& name, const std::string& broker, bool asJson) {
  mw::log::setLevel(mw::LogLevel::Silent);
  HXValue all = HXValue::list();
  const bool isPath = name.find('/') != std::string::npos;
  const bool isRunning = !broker.empty() || !mw::runningBrokers().empty();
  const HXValue running = isPath || !isRunning ? HXValue() : askRunning(broker, name);
  if (running.isValid()) {
    all.arrayPush(running);
  } else {
    all = askLibrary(name);
  }
  Output output(std::cout, std::cerr);
  for (const HXValue& module : all.asList()) {
    if (asJson) {
      output.line(formatResult(mw::AnyValue(module)).value_or(""));
    } else {
      printText(module, output);
    }
  }
  return 0;
}

}  // namespace

Verb settingsVerb() {
  const auto broker = std::make_shared<std::string>();
  const auto addOptions = [broker](CLI::App& app) {
    app.add_flag("--json")->description(std::string(kJson.summary));
    app.add_option("--broker", *broker, kBrokerHelp)->check(CLI::Validator(checkBrokerName, ""))->type_name("NAME");
  };
  const auto print = [broker](Arguments& arguments) {
    const std::string name = arguments.word("MODULE");
    arguments.end();
    return printSettings(name, *broker, arguments.has("--json"));
  };
  return {
      "settings",
      "MODULE",
      "Lists what can be set of a module, and what it is.",
      "MODULE is one that runs, in the broker or in a process of its own, and tells what it is set to; or a library "
      "as\n"
      "for korvo run, which tells what it is by default: it is constructed to be asked, and dropped before it does\n"
      "anything.\n"
      "With --json one line for each module: its name, and a list of name, range, text, value.",
      "settings hosttelemetry",
      "In this terminal",
      kStatusesOfAll,
      addOptions,
      print};
}

}  // namespace korvo
