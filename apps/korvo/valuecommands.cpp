#include "arguments.h"
#include "commands.h"
#include "format.h"
#include "inputvalues.h"
#include "keyquestions.h"
#include "output.h"
#include "target.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>

namespace korvo {
namespace {

using HX::HXMemoryProxy;
using HX::HXValue;

void get(Context& context, Arguments& arguments) {
  const bool asObject = arguments.takeFlag("--json");
  const std::string key = arguments.word("KEY");
  arguments.end();
  const HXValue value = context.target.memory().getData(key);
  context.output.line(asObject ? JsonObject().add("key", key).addValue(value).text() : HX::toJson(value));
}

void set(Context& context, Arguments& arguments) {
  const std::string key = arguments.word("KEY");
  forEachValue(context, arguments, [&](const HXValue& value) { context.target.memory().insertData(key, value); });
}

void remove(Context& context, Arguments& arguments) {
  const std::string key = arguments.word("KEY");
  arguments.end();
  context.target.memory().removeData(key);
}

void list(Context& context, Arguments& arguments) {
  const bool asObjects = arguments.takeFlag("--json");
  const std::string filter = arguments.atEnd() ? "" : arguments.word("FILTER");
  arguments.end();
  auto memory = context.target.memory();
  auto keys = memory.getDataList(filter);
  std::ranges::sort(keys);
  if (!asObjects) {
    for (const auto& key : keys) context.output.line(HX::toJson(key));
    return;
  }
  askInParts(*memory.proxy(), keys, {askKind}, [&](const std::string& key, KeyAnswers& answers) {
    const auto kind = std::move(answers[0]).take<std::string>();
    context.output.line(JsonObject().add("key", key).add("kind", kind).text());
  });
}

void type(Context& context, Arguments& arguments) {
  const bool asObject = arguments.takeFlag("--json");
  const std::string key = arguments.word("KEY");
  arguments.end();
  const std::string kind = context.target.memory().getType(key);
  context.output.line(asObject ? JsonObject().add("key", key).add("kind", kind).text() : HX::toJson(kind));
}

void time(Context& context, Arguments& arguments) {
  const bool asObject = arguments.takeFlag("--json");
  const std::string key = arguments.word("KEY");
  arguments.end();
  const std::string time = formatTime(toStamped(context.target.memory().getTimestamp(key)).time);
  context.output.line(asObject ? JsonObject().add("key", key).add("time", time).text() : HX::toJson(time));
}

/// The memory tells the events of an extractor and not the extractor of an event. An extractor that is not running is
/// not found.
HXValue findExtractor(Target& target, HXMemoryProxy& memory, const std::string& key) {
  for (const auto& service : target.services()) {
    if (std::ranges::count(memory.getExtractorEvent(service), key)) return service;
  }
  return {};
}

/// [name, kind, text] of one key: the last entry, behind the invalid ones.
HXValue description(HXMemoryProxy& memory, const std::string& key) {
  const HXValue found = memory.getDescriptionList({key});
  return found[found.getSize() - 1];
}

double secondsSince(mw::SystemTimePoint time) {
  const std::chrono::duration<double, std::micro> age = mw::systemNow() - time;
  return std::round(age.count()) / 1e6;
}

void info(Context& context, Arguments& arguments) {
  arguments.takeFlag("--json");  // It prints nothing else.
  const std::string key = arguments.word("KEY");
  arguments.end();
  auto memory = context.target.memory();
  const Stamped stamped = toStamped(memory.getTimestamp(key));
  JsonObject line;
  line.add("key", key).add("kind", memory.getType(key)).addValue(stamped.value);
  line.add("time", formatTime(stamped.time)).add("age", secondsSince(stamped.time));
  line.add("history", static_cast<std::int64_t>(memory.getEventHistory(key).getSize()));
  line.add("subscribers", static_cast<std::int64_t>(memory.getSubscribers(key).size()));
  if (const HXValue extractor = findExtractor(context.target, memory, key); extractor.isValid()) {
    line.add("extractor", extractor);
  }
  line.add("description", description(memory, key)[2]);
  context.output.line(line.text());
}

void describe(Context& context, Arguments& arguments) {
  const bool asObject = arguments.takeFlag("--json");
  const std::string key = arguments.word("KEY");
  const bool reads = arguments.atEnd();
  const std::string text = reads ? "" : arguments.word("TEXT");
  arguments.end();
  auto memory = context.target.memory();
  if (!reads) return memory.setDescription(key, text);
  const HXValue found = description(memory, key)[2];
  context.output.line(asObject ? JsonObject().add("key", key).add("description", found).text() : HX::toJson(found));
}

void descriptions(Context& context, Arguments& arguments) {
  const bool asObjects = arguments.takeFlag("--json");
  const auto keys = arguments.words("KEY");
  const HXValue found = context.target.memory().getDescriptionList(keys);
  for (std::size_t i = 0; i < found.getSize(); ++i) {
    const HXValue& one = found[i];
    if (!one.isValid()) continue;
    JsonObject line;
    line.add("key", one[0]).add("kind", one[1]).add("description", one[2]);
    context.output.line(asObjects ? line.text() : HX::toJson(one));
  }
}

constexpr std::array kValueCommands{
    Command{"get", "KEY", "Prints the value of a key.", "With --json as {\"key\":KEY,\"value\":VALUE}.", "get Arm/Pose",
            get, kJsonFlag},
    Command{"set", "KEY JSON", "Stores a value under a key; the key is made when there is none.",
            "Whole numbers are ints, numbers with a fraction or an exponent doubles; null is the invalid value.\n"
            "Subscribers of events are not told; see raise.\n"
            "In a shell, - for JSON reads standard input: each line is one value, set in turn.",
            "set Arm/Pose '{\"x\": 0.5, \"joints\": [1, 2]}'", set},
    Command{"rm", "KEY", "Removes a key.", "", "rm Arm/Pose", remove},
    Command{"ls", "[FILTER]", "Lists the keys that contain FILTER, or all, sorted, one a line.",
            "With --json as {\"key\":KEY,\"kind\":KIND}.", "ls Arm/", list, kJsonFlag},
    Command{"info", "KEY", "Prints all there is to know of a key as one line of JSON.",
            "kind, value, time (local), age in seconds, history (how many raises are remembered), subscribers (how\n"
            "many), extractor (only where it is a running service), description; and replaced, only where the value\n"
            "has bytes that are not UTF-8, for which U+FFFD is printed.",
            "info Battery", info, kJsonFlag},
    Command{"time", "KEY", "Prints when a key was last set, local time to the microsecond.",
            "With --json as {\"key\":KEY,\"time\":TIME}.", "time Battery", time, kJsonFlag},
    Command{"type", "KEY", "Prints the kind of a key: Data, Event or MicroEvent.",
            "With --json as {\"key\":KEY,\"kind\":KIND}.", "type Battery", type, kJsonFlag},
    Command{"describe", "KEY [TEXT]", "Sets the description of a key, or prints it.",
            "With --json it is printed as {\"key\":KEY,\"description\":TEXT}.",
            "describe Battery \"Charge of the main battery, 0 to 1\"", describe, kJsonFlag},
    Command{"descriptions", "[KEY...]", "Prints [name, kind, description] of the keys, or of all, one a line.",
            "With --json as {\"key\":KEY,\"kind\":\"data\" or \"event\",\"description\":TEXT}.",
            "descriptions Battery Door", descriptions, kJsonFlag},
};

}  // namespace

std::span<const Command> valueCommands() { return kValueCommands; }

}  // namespace korvo
