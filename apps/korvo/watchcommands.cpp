#include "arguments.h"
#include "commands.h"
#include "event.h"
#include "format.h"
#include "frequency.h"
#include "keys.h"
#include "output.h"
#include "suggestion.h"
#include "target.h"
#include "watches.h"

#include <libmw/signal.h>

#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;
using namespace std::chrono_literals;

std::vector<std::string> someKeys(Arguments& arguments) {
  if (arguments.atEnd()) throw InputError("KEY is missing");
  return arguments.words("KEY");
}

void watch(Context& context, Arguments& arguments) {
  context.watches.markGapsInOutput(arguments.has("--json"));
  const auto keys = someKeys(arguments);
  auto memory = context.target.memory();
  for (const auto& key : keys) context.watches.add(key, memory.subscriber(key));
}

void unwatch(Context& context, Arguments& arguments) {
  for (const auto& key : someKeys(arguments)) {
    if (context.watches.remove(key)) continue;
    throw std::runtime_error(fmt::format("not watched: {}{}", excerpt(key), didYouMean(key, context.watches.keys())));
  }
}

std::string frequencyLine(const std::string& key, const Frequency::Summary& found, bool asObject) {
  if (asObject) {
    JsonObject line;
    line.add("key", key).add("hz", found.perSecond).add("raises", static_cast<std::int64_t>(found.count));
    if (found.count > 1) line.add("least", found.least).add("most", found.most).add("deviation", found.deviation);
    return line.add("time", formatTime(mw::systemNow())).text();
  }
  if (found.count < 2) return fmt::format("{} raises in {} s", found.count, Frequency::kSpan.count());
  return fmt::format("{:.6g} Hz, apart {:.6g} to {:.6g} s, deviation {:.3g} s, {} raises", found.perSecond, found.least,
                     found.most, found.deviation, found.count);
}

void frequency(Context& context, Arguments& arguments) {
  const bool asObject = arguments.has("--json");
  auto left = arguments.count("--count");
  const std::string wanted = arguments.word("KEY");
  arguments.end();
  if (context.isConsole() && !left) left = 1;
  forEachKey(context, {wanted}, [&](HX::HXMemoryProxy& memory, const std::string& key) {
    memory.getType(key);  // To watch a key that does not exist would make it.
    const auto seen = std::make_shared<Frequency>();
    const mw::AnyObject raises = memory.subscriber(key);
    const auto see = [seen](const HXValue& /*value*/) { seen->see(Frequency::Clock::now()); };
    const auto link = raises->connect("signal", mw::SignalSubscriber(see)).take();
    while ((!left || (*left)-- > 0) && waitReadable({context.stop}, 1000ms) != 0 && context.output.works()) {
      context.target.settle();  // Of a broker that has gone nothing would be seen.
      context.output.line(frequencyLine(key, seen->summary(Frequency::Clock::now()), asObject));
    }
    raises->disconnect(link).wait();
  });
}

constexpr Option kWatchOptions[] = {{"--json", "", "Print gaps too as objects of JSON, among the raises"}};
constexpr Option kFrequencyOptions[] = {kJson, {"--count", "N", "Print N lines; in a console one"}};

constexpr std::array kWatchCommands{
    Command{"watch", "KEY...", "Prints each raise of these keys as it happens, until unwatch or Ctrl-C.",
            "Each as {\"key\":KEY,\"value\":VALUE,\"time\":TIME}. A key that does not exist is declared as an event.\n"
            "In a shell it goes on when the broker ends and is started again, and marks the gap on standard error;\n"
            "with --json as {\"gap\":\"begins\",\"reason\":TEXT,\"time\":TIME} and {\"gap\":\"ends\",\"time\":TIME}.",
            "watch Door Battery", watch, kWatchOptions, Use::Lasting},
    Command{"unwatch", "KEY...", "Ends what watch began.", "", "unwatch Door", unwatch, {}, Use::Console},
    Command{
        "hz", "KEY", "Prints each second how often a key is raised, until Ctrl-C.",
        "How many raises a second, how far apart they are at least and at most, how much that deviates, and how many\n"
        "there were, each of the last 10 seconds. What is set and not raised is not seen.\n"
        "With --json as {\"key\":KEY,\"hz\":N,\"raises\":N,\"least\":S,\"most\":S,\"deviation\":S,\"time\":TIME}.",
        "hz Arm/Pose", frequency, kFrequencyOptions},
};

}  // namespace

std::span<const Command> watchCommands() { return kWatchCommands; }

}  // namespace korvo
