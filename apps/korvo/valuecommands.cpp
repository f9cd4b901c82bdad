#include "arguments.h"
#include "commands.h"
#include "format.h"
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
  const std::string key = arguments.word("KEY");
  arguments.end();
  context.output.line(HX::toJson(context.target.memory().getData(key)));
}

void set(Context& context, Arguments& arguments) {
  const std::string key = arguments.word("KEY");
  const HXValue value = arguments.json("JSON");
  arguments.end();
  context.target.memory().insertData(key, value);
}

void remove(Context& context, Arguments& arguments) {
  const std::string key = arguments.word("KEY");
  arguments.end();
  context.target.memory().removeData(key);
}

void list(Context& context, Arguments& arguments) {
  const std::string filter = arguments.atEnd() ? "" : arguments.word("FILTER");
  arguments.end();
  auto keys = context.target.memory().getDataList(filter);
  std::ranges::sort(keys);
  for (const auto& key : keys) context.output.line(HX::toJson(key));
}

void type(Context& context, Arguments& arguments) {
  const std::string key = arguments.word("KEY");
  arguments.end();
  context.output.line(HX::toJson(context.target.memory().getType(key)));
}

void time(Context& context, Arguments& arguments) {
  const std::string key = arguments.word("KEY");
  arguments.end();
  const Stamped stamped = toStamped(context.target.memory().getTimestamp(key));
  context.output.line(HX::toJson(formatTime(stamped.time)));
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
  const std::string key = arguments.word("KEY");
  const bool reads = arguments.atEnd();
  const std::string text = reads ? "" : arguments.word("TEXT");
  arguments.end();
  auto memory = context.target.memory();
  if (reads) {
    context.output.line(HX::toJson(description(memory, key)[2]));
  } else {
    memory.setDescription(key, text);
  }
}

void descriptions(Context& context, Arguments& arguments) {
  const auto keys = arguments.words("KEY");
  const HXValue found = context.target.memory().getDescriptionList(keys);
  for (std::size_t i = 0; i < found.getSize(); ++i) {
    if (found[i].isValid()) context.output.line(HX::toJson(found[i]));
  }
}

constexpr std::array kCommands{
    Command{"get", "KEY", "Prints the value of a key.", "", get},
    Command{"set", "KEY JSON", "Stores a value under a key; the key is made when there is none.",
            "Whole numbers are ints, numbers with a fraction or an exponent doubles; null is the invalid value.\n"
            "Subscribers of events are not told; see raise.\n"
            "Example: set Arm/Pose {\"x\": 0.5, \"joints\": [1, 2]}",
            set},
    Command{"rm", "KEY", "Removes a key.", "", remove},
    Command{"ls", "[FILTER]", "Lists the keys that contain FILTER, or all, sorted, one a line.", "", list},
    Command{"info", "KEY", "Prints all there is to know of a key as one line of JSON.",
            "kind, value, time (local), age in seconds, history (how many raises are remembered), subscribers (how\n"
            "many), extractor (only where it is a running service), description; and replaced, only where the value\n"
            "has bytes that are not UTF-8, for which U+FFFD is printed.",
            info},
    Command{"time", "KEY", "Prints when a key was last set, local time to the microsecond.", "", time},
    Command{"type", "KEY", "Prints the kind of a key: Data, Event or MicroEvent.", "", type},
    Command{"describe", "KEY [TEXT]", "Sets the description of a key, or prints it.",
            "Example: describe Battery \"Charge of the main battery, 0 to 1\"", describe},
    Command{"descriptions", "[KEY...]", "Prints [name, kind, description] of the keys, or of all, one a line.", "",
            descriptions},
};

}  // namespace

std::span<const Command> valueCommands() { return kCommands; }

}  // namespace korvo
