#include "arguments.h"
#include "commands.h"
#include "format.h"
#include "inputvalues.h"
#include "output.h"
#include "target.h"
#include "watches.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace korvo {
namespace {

using HX::HXValue;

/// @param what  What each of them is, for the form of objects; null prints bare names.
void printNames(Output& output, const std::vector<std::string>& names, const char* what) {
  for (const auto& name : names) output.line(what ? JsonObject().add(what, name).text() : HX::toJson(name));
}

void raise(Context& context, Arguments& arguments) {
  const std::string key = arguments.word("KEY");
  forEachValue(context, arguments, [&](const HXValue& value) { context.target.memory().raiseEvent(key, value); });
}

void declare(Context& context, Arguments& arguments) {
  const std::string event = arguments.word("EVENT");
  const bool hasExtractor = !arguments.atEnd();
  const std::string extractor = hasExtractor ? arguments.word("EXTRACTOR") : "";
  arguments.end();
  auto memory = context.target.memory();
  if (hasExtractor) {
    memory.declareEvent(event, extractor);
  } else {
    memory.declareEvent(event);
  }
}

void events(Context& context, Arguments& arguments) {
  const char* const what = arguments.takeFlag("--json") ? "key" : nullptr;
  arguments.end();
  printNames(context.output, context.target.memory().getEventList(), what);
}

void microEvents(Context& context, Arguments& arguments) {
  const char* const what = arguments.takeFlag("--json") ? "key" : nullptr;
  arguments.end();
  auto names = context.target.memory().getMicroEventList();
  std::ranges::sort(names);
  printNames(context.output, names, what);
}

void history(Context& context, Arguments& arguments) {
  arguments.takeFlag("--json");  // It prints nothing else.
  const std::string event = arguments.word("EVENT");
  arguments.end();
  const HXValue raises = context.target.memory().getEventHistory(event);
  for (std::size_t i = 0; i < raises.getSize(); ++i) {
    const Stamped stamped = toStamped(raises[i]);
    context.output.line(JsonObject().addValue(stamped.value).add("time", formatTime(stamped.time)).text());
  }
}

void subscribers(Context& context, Arguments& arguments) {
  const char* const what = arguments.takeFlag("--json") ? "subscriber" : nullptr;
  const std::string key = arguments.word("KEY");
  arguments.end();
  printNames(context.output, context.target.memory().getSubscribers(key), what);
}

std::vector<std::string> someKeys(Arguments& arguments) {
  if (arguments.atEnd()) throw InputError("KEY is missing");
  return arguments.words("KEY");
}

void watch(Context& context, Arguments& arguments) {
  context.watches.markGapsInOutput(arguments.takeFlag("--json"));
  const auto keys = someKeys(arguments);
  auto memory = context.target.memory();
  for (const auto& key : keys) context.watches.add(key, memory.subscriber(key));
}

void unwatch(Context& context, Arguments& arguments) {
  for (const auto& key : someKeys(arguments)) {
    if (!context.watches.remove(key)) throw std::runtime_error("not watched: " + excerpt(key));
  }
}

void map(Context& context, Arguments& arguments) {
  const std::string service = arguments.word("SERVICE");
  const std::string signal = arguments.word("SIGNAL");
  const std::string event = arguments.word("EVENT");
  arguments.end();
  context.target.memory().addMapping(service, signal, event);
}

constexpr Flag kWatchFlags[] = {{"--json", "Print gaps too as objects of JSON, among the raises"}};

constexpr std::array kEventCommands{
    Command{"raise", "KEY JSON", "Raises an event: stores its value and tells its subscribers.",
            "The event is made when there is none. Returns when every subscriber has been told.\n"
            "In a shell, - for JSON reads standard input: each line is one value, raised in turn.",
            "raise Door true", raise},
    Command{"declare", "EVENT [EXTRACTOR]", "Declares an event, and the module that produces it.", "",
            "declare Door DoorSensor", declare},
    Command{"events", "", "Lists the declared events, one a line.", "With --json as {\"key\":EVENT}.", "events", events,
            kJsonFlag},
    Command{"micro-events", "", "Lists the micro-events, one a line.", "With --json as {\"key\":EVENT}.",
            "micro-events", microEvents, kJsonFlag},
    Command{"history", "EVENT", "Prints the latest raises of an event, oldest first, one a line.",
            "Each as {\"value\":VALUE,\"time\":TIME}.", "history Door", history, kJsonFlag},
    Command{"subscribers", "KEY", "Lists the modules that subscribe to a key, one a line.",
            "With --json as {\"subscriber\":MODULE}.", "subscribers Door", subscribers, kJsonFlag},
    Command{"watch", "KEY...", "Prints each raise of these keys as it happens, until unwatch or Ctrl-C.",
            "Each as {\"key\":KEY,\"value\":VALUE,\"time\":TIME}. A key that does not exist is declared as an event.\n"
            "In a shell it goes on when the broker ends and is started again, and marks the gap on standard error;\n"
            "with --json as {\"gap\":\"begins\",\"reason\":TEXT,\"time\":TIME} and {\"gap\":\"ends\",\"time\":TIME}.",
            "watch Door Battery", watch, kWatchFlags, Use::Lasting},
    Command{"unwatch", "KEY...", "Ends what watch began.", "", "unwatch Door", unwatch, {}, Use::Console},
    Command{"map", "SERVICE SIGNAL EVENT", "Raises EVENT whenever SERVICE emits SIGNAL.",
            "The service may appear later.", "map Motor stalled Motor/Stalled", map},
};

}  // namespace

std::span<const Command> eventCommands() { return kEventCommands; }

}  // namespace korvo
