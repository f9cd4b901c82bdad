#include "arguments.h"
#include "base/format.h"
#include "base/keyquestions.h"
#include "base/output.h"
#include "base/target.h"
#include "commands.h"
#include "inputvalues.h"
#include "keys.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXMemoryProxy;
using HX::HXValue;

const char* typeName(const HXValue& value) { return HXValue::TypeToString(value.getType()); }

/// A string or bytes as they are, everything else as JSON.
void printRaw(Output& output, const HXValue& value) {
  if (const auto* bytes = value.binaryIf()) {
    output.bytes({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  } else {
    const std::string* const text = value.stringIf();
    output.line(text ? *text : HX::toJson(value));
  }
}

/// Keeps values that are too old from being taken for fresh ones.
class Staleness {
 public:
  /// @param limit  How old a value may be; any age where it is none.
  Staleness(Output& output, std::optional<std::chrono::nanoseconds> limit) : output_(output), limit_(limit) {}

  /// Whether a key was set within the limit.
  bool allows(HXMemoryProxy& memory, const std::string& key) {
    if (!limit_) return true;
    const auto age = mw::systemNow() - toStamped(memory.getTimestamp(key)).time;
    if (age <= *limit_) return true;
    if (last_) output_.error(*last_);
    last_ = fmt::format("{} is {} old, more than {}", excerpt(key), formatDuration(age), formatDuration(*limit_));
    return false;
  }
  /// @throws std::runtime_error for the last key that was not; the others have been told.
  void end() const {
    if (last_) throw std::runtime_error(*last_);
  }

 private:
  Output& output_;
  const std::optional<std::chrono::nanoseconds> limit_;
  std::optional<std::string> last_;
};

/// As another process sees it in shared memory.
HXValue viewed(HXMemoryProxy& memory, const std::string& key) {
  constexpr std::size_t kCapacity = std::size_t{1} << 20U;
  auto view = memory.view<HXValue>(key, {.capacity = kCapacity});
  try {
    return view.read().value();
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(fmt::format("{}: {}", excerpt(key), error.what()));
  }
}

void get(Context& context, Arguments& arguments) {
  const bool asObject = arguments.has("--json");
  const bool isRaw = arguments.has("--raw");
  if (asObject && isRaw) throw InputError("--json and --raw exclude each other");
  const bool tellsKey = arguments.has(kPrefix.name) && !isRaw;
  const bool isViewed = arguments.has("--view");
  Staleness staleness(context.output, arguments.duration("--max-age"));
  forEachKey(context, keysOf(context, arguments), [&](HXMemoryProxy& memory, const std::string& key) {
    if (!staleness.allows(memory, key)) return;
    const HXValue value = isViewed ? viewed(memory, key) : memory.getData(key);
    if (isRaw) return printRaw(context.output, value);
    if (asObject) return context.output.line(JsonObject().add("key", key).addValue(value).text());
    context.output.line((tellsKey ? context.shown(key) + "\t" : "") + HX::toJson(value));
  });
  staleness.end();
}

void setLines(Context& context, Arguments& arguments, ValueReader& reader, const std::string& key) {
  arguments.end();
  auto memory = context.target.memory();
  reader.forEachLine([&](HXValue value) {
    memory.insertData(key, reader.typed(std::move(value), memory, key));
    return true;
  });
}

void setByPrefix(Context& context, Arguments& arguments, ValueReader& reader, const std::string& prefix) {
  const HXValue value = reader.next();
  arguments.end();
  Arguments named({prefix}, arguments.options());
  forEachKey(context, keysToChange(context, named, "set"), [&](HXMemoryProxy& memory, const std::string& key) {
    memory.insertData(key, reader.typed(value, memory, key));
  });
}

void set(Context& context, Arguments& arguments) {
  ValueReader reader(context, arguments);
  std::vector<std::pair<std::string, HXValue>> all;
  do {
    std::string key = arguments.word("KEY");
    if (arguments.has(kPrefix.name)) return setByPrefix(context, arguments, reader, key);
    if (all.empty() && context.input && arguments.takeDash()) return setLines(context, arguments, reader, key);
    all.emplace_back(std::move(key), reader.next());
  } while (!arguments.atEnd());
  auto memory = context.target.memory();
  for (auto& [key, value] : all) memory.insertData(key, reader.typed(std::move(value), memory, key));
}

void remove(Context& context, Arguments& arguments) {
  forEachKey(context, keysToChange(context, arguments, "remove"),
             [](HXMemoryProxy& memory, const std::string& key) { memory.removeData(key); });
}

void list(Context& context, Arguments& arguments) {
  const bool asObjects = arguments.has("--json");
  const std::string filter = arguments.atEnd() ? "" : arguments.word("FILTER");
  arguments.end();
  auto memory = context.target.memory();
  const auto keys = context.target.keys(filter);
  if (!asObjects) {
    for (const auto& key : keys) context.output.line(context.shown(key));
    return;
  }
  askInParts(*memory.proxy(), keys, {askKind, askValue}, [&](const std::string& key, KeyAnswers& answers) {
    const auto kind = std::move(answers[0]).take<std::string>();
    const auto value = std::move(answers[1]).take<HXValue>();
    context.output.line(JsonObject().add("key", key).add("kind", kind).add("type", typeName(value)).text());
  });
}

/// Prints one thing that there is to know of a key.
void printOf(Context& context, Arguments& arguments, const char* what,
             std::string (*find)(HXMemoryProxy& memory, const std::string& key)) {
  const bool asObject = arguments.has("--json");
  const std::string key = arguments.word("KEY");
  arguments.end();
  forEachKey(context, {key}, [&](HXMemoryProxy& memory, const std::string& one) {
    const std::string found = find(memory, one);
    context.output.line(asObject ? JsonObject().add("key", one).add(what, found).text() : context.shown(found));
  });
}

void type(Context& context, Arguments& arguments) {
  printOf(context, arguments, "kind",
          [](HXMemoryProxy& memory, const std::string& key) { return memory.getType(key); });
}

void time(Context& context, Arguments& arguments) {
  printOf(context, arguments, "time", [](HXMemoryProxy& memory, const std::string& key) {
    return formatTime(toStamped(memory.getTimestamp(key)).time);
  });
}

/// The memory tells the events of an extractor and not the extractor of an event. An extractor that is not running is
/// not found.
HXValue findExtractor(Target& target, HXMemoryProxy& memory, const std::string& key) {
  for (const auto& service : target.services()) {
    if (std::ranges::count(memory.getExtractorEvent(service), key)) return service;
  }
  return {};
}

std::string description(HXMemoryProxy& memory, const std::string& key) {
  return textOfDescription(memory.getDescriptionList({key}));
}

double secondsSince(mw::SystemTimePoint time) {
  const std::chrono::duration<double, std::micro> age = mw::systemNow() - time;
  return std::round(age.count()) / 1e6;
}

void info(Context& context, Arguments& arguments) {
  const std::string wanted = arguments.word("KEY");
  arguments.end();
  forEachKey(context, {wanted}, [&](HXMemoryProxy& memory, const std::string& key) {
    const Stamped stamped = toStamped(memory.getTimestamp(key));
    JsonObject line;
    line.add("key", key).add("kind", memory.getType(key));
    line.add("type", typeName(stamped.value)).addValue(stamped.value);
    line.add("time", formatTime(stamped.time)).add("age", secondsSince(stamped.time));
    line.add("history", static_cast<std::int64_t>(memory.getEventHistory(key).getSize()));
    line.add("subscribers", static_cast<std::int64_t>(memory.getSubscribers(key).size()));
    if (const HXValue extractor = findExtractor(context.target, memory, key); extractor.isValid()) {
      line.add("extractor", extractor);
    }
    context.output.line(line.add("description", description(memory, key)).text());
  });
}

void describe(Context& context, Arguments& arguments) {
  const std::string key = arguments.word("KEY");
  if (arguments.atEnd()) {
    Arguments named({key}, arguments.options());
    return printOf(context, named, "description", description);
  }
  const std::string text = arguments.word("TEXT");
  arguments.end();
  forEachKey(context, {key}, [&](HXMemoryProxy& memory, const std::string& one) { memory.setDescription(one, text); });
}

void descriptions(Context& context, Arguments& arguments) {
  const bool asObjects = arguments.has("--json");
  auto keys = arguments.words("KEY");
  const auto print = [&](const std::string& key, const std::string& kind, const std::string& text) {
    const auto object = JsonObject().add("key", key).add("kind", kind).add("description", text);
    context.output.line(asObjects ? object.text() : HX::toJson(HXValue::list({key, kind, text})));
  };
  if (!keys.empty()) {
    return forEachKey(context, keys, [&](HXMemoryProxy& memory, const std::string& key) {
      print(key, memory.getType(key), description(memory, key));
    });
  }
  auto memory = context.target.memory();
  keys = context.target.keys("");
  askInParts(*memory.proxy(), keys, {askKind, askDescription}, [&](const std::string& key, KeyAnswers& answers) {
    print(key, std::move(answers[0]).take<std::string>(), textOfDescription(std::move(answers[1]).take<HXValue>()));
  });
}

constexpr Option kGetOptions[] = {
    kJson,
    {"--raw", "", "Print strings without quotes and escapes, and bytes as they are, without a line end"},
    kPrefix,
    {"--max-age", "LIMIT", "Fail for a key that was set longer ago than this: 200ms, 5s"},
    {"--view", "", "Read it in shared memory, as views do"}};
constexpr Option kSetOptions[] = {kString, kType, kPrefix, kYes};
constexpr Option kRemoveOptions[] = {kPrefix, kYes};

constexpr std::array kValueCommands{
    Command{"get", "KEY...", "Prints the value of each key, a line each.",
            "With --json as {\"key\":KEY,\"value\":VALUE}. With --prefix each line begins with the name of its key and "
            "a\ntabulator. With --max-age a key that is older is an error, and not printed.",
            "get Arm/Pose", get, kGetOptions},
    Command{"set", "KEY JSON [KEY JSON]...", "Stores a value under a key; the key is made when there is none.",
            "A number gets the type of the number that the key has, where it fits: 1 stays a float where one was. A "
            "new key\n"
            "has ints, or doubles for numbers with a fraction or an exponent; null is the invalid value.\n"
            "Subscribers of events are not told; see raise.\n"
            "In a shell, - for JSON reads standard input: each line is one value, set in turn.",
            "set Arm/Pose '{\"x\": 0.5, \"joints\": [1, 2]}'", set, kSetOptions},
    Command{"rm", "KEY...", "Removes keys.", "With --prefix the memory's own keys stay.", "rm Arm/Pose", remove,
            kRemoveOptions},
    Command{"ls", "[FILTER]", "Lists the keys that contain FILTER, or all, sorted, one a line.",
            "A key is printed as it is, or as a JSON string where it has line ends or blanks around it.\n"
            "With --json as {\"key\":KEY,\"kind\":KIND,\"type\":TYPE}.",
            "ls Arm/", list, kJsonOnly},
    Command{
        "info", "KEY", "Prints all there is to know of a key as one line of JSON.",
        "kind (Data, Event or MicroEvent), type (of the value), value, time (local), age in seconds, history (how\n"
        "many raises are remembered), subscribers (how many), extractor (only where it is a running service),\n"
        "description; and replaced, only where the value has bytes that are not UTF-8, for which U+FFFD is printed.",
        "info Battery", info, kJsonOnly},
    Command{"time", "KEY", "Prints when a key was last set, local time to the microsecond.",
            "With --json as {\"key\":KEY,\"time\":TIME}.", "time Battery", time, kJsonOnly},
    Command{"type", "KEY", "Prints the kind of a key: Data, Event or MicroEvent.",
            "With --json as {\"key\":KEY,\"kind\":KIND}. The type of its value is told by info.", "type Battery", type,
            kJsonOnly},
    Command{"describe", "KEY [TEXT]", "Sets the description of a key, or prints it.",
            "With --json it is printed as {\"key\":KEY,\"description\":TEXT}.",
            "describe Battery \"Charge of the main battery, 0 to 1\"", describe, kJsonOnly},
    Command{"descriptions", "[KEY...]", "Prints [name, kind, description] of the keys, or of all, sorted, one a line.",
            "With --json as {\"key\":KEY,\"kind\":KIND,\"description\":TEXT}.", "descriptions Battery Door",
            descriptions, kJsonOnly},
};

}  // namespace

std::span<const Command> valueCommands() { return kValueCommands; }

}  // namespace korvo
