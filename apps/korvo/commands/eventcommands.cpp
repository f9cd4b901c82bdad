#include "arguments.h"
#include "base/event.h"
#include "base/format.h"
#include "base/output.h"
#include "base/target.h"
#include "commands.h"
#include "inputvalues.h"
#include "keys.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <thread>

namespace korvo {
namespace {

using HX::HXValue;
using namespace std::chrono_literals;

/// @param what  What each of them is, for the form of objects.
void printNames(Context& context, Arguments& arguments, std::vector<std::string> names, const char* what) {
  const bool asObjects = arguments.has("--json");
  std::ranges::sort(names);
  for (const auto& name : names) {
    context.output.line(asObjects ? JsonObject().add(what, name).text() : context.shown(name));
  }
}

/// Lets something happen so often, and so fast.
class Pace {
 public:
  /// @param count  How often, without end where it is none.
  /// @param rate   How many a second, as fast as may be where it is none.
  Pace(std::optional<std::size_t> count, std::optional<double> rate) : left_(count), rate_(rate) {}

  /// Waits until it is time.
  /// @return False when it has happened often enough, or `stop` is readable.
  bool next(int stop) {
    if (left_ && (*left_)-- == 0) return false;
    if (!rate_) return true;
    const auto now = Clock::now();
    // What took too long is not made good by a burst.
    next_ = std::max(now, next_);
    while (true) {
      const auto wait = std::chrono::floor<std::chrono::milliseconds>(next_ - Clock::now());
      if (waitReadable({stop}, std::clamp(wait, 0ms, 1000ms)) == 0) return false;
      if (wait < 1ms) break;
    }
    std::this_thread::sleep_until(next_);
    constexpr double kLongest = 1e9;  // Seconds; what is longer does not fit the clock.
    next_ += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::min(1 / *rate_, kLongest)));
    return true;
  }

 private:
  using Clock = std::chrono::steady_clock;
  std::optional<std::size_t> left_;
  const std::optional<double> rate_;
  Clock::time_point next_;
};

void raise(Context& context, Arguments& arguments) {
  ValueReader reader(context, arguments);
  const auto count = arguments.count("--count");
  const auto rate = arguments.number("--rate");
  const std::string key = arguments.word("KEY");
  const bool readsLines = context.input && arguments.takeDash();
  const HXValue value = readsLines ? HXValue() : reader.next();
  arguments.end();
  if (context.isConsole() && rate && !count) throw InputError("--rate needs --count in a console");
  auto memory = context.target.memory();
  Pace pace(readsLines || rate || count ? count : 1, rate);
  if (!readsLines) {
    const HXValue typed = reader.typed(value, memory, key);
    while (pace.next(context.stop)) memory.raiseEvent(key, typed);
    return;
  }
  reader.forEachLine([&](HXValue one) {
    if (!pace.next(context.stop)) return false;
    memory.raiseEvent(key, reader.typed(std::move(one), memory, key));
    return true;
  });
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
  arguments.end();
  printNames(context, arguments, context.target.memory().getEventList(), "key");
}

void microEvents(Context& context, Arguments& arguments) {
  arguments.end();
  printNames(context, arguments, context.target.memory().getMicroEventList(), "key");
}

void history(Context& context, Arguments& arguments) {
  const auto last = arguments.count("--last");
  const std::string event = arguments.word("EVENT");
  arguments.end();
  forEachKey(context, {event}, [&](HX::HXMemoryProxy& memory, const std::string& key) {
    const HXValue raises = memory.getEventHistory(key);
    const std::size_t count = raises.getSize();
    for (std::size_t i = last && *last < count ? count - *last : 0; i < count; ++i) {
      const Stamped stamped = toStamped(raises[i]);
      context.output.line(JsonObject().addValue(stamped.value).add("time", formatTime(stamped.time)).text());
    }
  });
}

void subscribers(Context& context, Arguments& arguments) {
  const std::string wanted = arguments.word("KEY");
  arguments.end();
  forEachKey(context, {wanted}, [&](HX::HXMemoryProxy& memory, const std::string& key) {
    printNames(context, arguments, memory.getSubscribers(key), "subscriber");
  });
}

void map(Context& context, Arguments& arguments) {
  const std::string service = arguments.word("SERVICE");
  const std::string signal = arguments.word("SIGNAL");
  const std::string event = arguments.word("EVENT");
  arguments.end();
  context.target.memory().addMapping(service, signal, event);
}

constexpr Option kRaiseOptions[] = {kString,
                                    kType,
                                    {"--rate", "HZ", "Raise so many times a second; without --count until interrupted"},
                                    {"--count", "N", "Raise N times, and for - at most N lines"}};
constexpr Option kHistoryOptions[] = {kJson, {"--last", "N", "Print the latest N raises only"}};

constexpr std::array kEventCommands{
    Command{
        "raise", "KEY JSON", "Raises an event: stores its value and tells its subscribers.",
        "The event is made when there is none, and numbers get types as with set. Returns when every subscriber has\n"
        "been told.\n"
        "In a shell, - for JSON reads standard input: each line is one value, raised in turn.",
        "raise Door true", raise, kRaiseOptions},
    Command{"declare", "EVENT [EXTRACTOR]", "Declares an event, and the module that produces it.", "",
            "declare Door DoorSensor", declare},
    Command{"events", "", "Lists the declared events, one a line.", "With --json as {\"key\":EVENT}.", "events", events,
            kJsonOnly},
    Command{"micro-events", "", "Lists the micro-events, one a line.", "With --json as {\"key\":EVENT}.",
            "micro-events", microEvents, kJsonOnly},
    Command{"history", "EVENT", "Prints the latest raises of an event, oldest first, one a line.",
            "Each as {\"value\":VALUE,\"time\":TIME}. The memory remembers 50.", "history Door --last 5", history,
            kHistoryOptions},
    Command{"subscribers", "KEY", "Lists the modules that subscribe to a key, one a line.",
            "With --json as {\"subscriber\":MODULE}.", "subscribers Door", subscribers, kJsonOnly},
    Command{"map", "SERVICE SIGNAL EVENT", "Raises EVENT whenever SERVICE emits SIGNAL.",
            "The service may appear later.", "map Motor stalled Motor/Stalled", map},
};

}  // namespace

std::span<const Command> eventCommands() { return kEventCommands; }

}  // namespace korvo
