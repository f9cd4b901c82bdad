#include "arguments.h"
#include "base/event.h"
#include "base/format.h"
#include "base/output.h"
#include "base/suggestion.h"
#include "base/target.h"
#include "commands.h"
#include "demand.h"
#include "frequency.h"
#include "keys.h"
#include "watches.h"
#include "watchlines.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> somePatterns(Arguments& arguments) {
  if (arguments.atEnd()) throw InputError("KEY is missing");
  return arguments.words("KEY");
}

bool isGlob(const std::string& pattern) { return pattern.find_first_of("*?") != std::string::npos; }

/// What a typo would wait for in vain.
/// @throws std::runtime_error when a pattern stands for no key that there is.
void requireKeys(Context& context, const std::vector<std::string>& patterns) {
  std::vector<std::string> exact;
  for (const std::string& pattern : patterns) {
    const bool isPrefix = pattern.ends_with('/');
    if (!isGlob(pattern) && !isPrefix) {
      exact.push_back(pattern);
      continue;
    }
    const HX::journal::Filter filter({pattern});
    const auto keys = context.target.keys(isGlob(pattern) ? "" : pattern);
    if (std::ranges::any_of(keys, [&](const std::string& key) { return filter.wantsKey(key); })) continue;
    throw std::runtime_error(fmt::format("no key {} {}; --wait waits for one",
                                         isGlob(pattern) ? "matches" : "begins with", excerpt(pattern)));
  }
  forEachKey(context, exact, [](HX::HXMemoryProxy& memory, const std::string& key) { memory.getType(key); });
}

/// "5m" is how people say five minutes; elsewhere that unit is spelled "min".
HX::journal::TimePoint timeBefore(const std::string& text) {
  const bool isMinutes =
      text.size() > 1 && text.ends_with('m') && std::isdigit(static_cast<unsigned char>(text.end()[-2]));
  try {
    return mw::systemNow() - toDuration("--since", isMinutes ? text + "in" : text);
  } catch (const InputError&) {
    throw InputError(
        fmt::format("--since: {} is neither a place (EPOCH:REVISION) nor a time above zero (5m)", excerpt(text)));
  }
}

HX::journal::Position placeOf(Context& context, const std::string& since) {
  if (const auto position = toPosition(since)) return *position;
  const auto time = timeBefore(since);
  const auto retained = context.target.retainedChanges();
  if (!retained.since) {
    context.output.note("no changes are recorded so far; korvo run --journal keep records always");
  } else if (*retained.since > time) {
    context.output.note(fmt::format("what changed before {} is not recorded", formatTime(*retained.since)));
  }
  return context.target.changesAt(time);
}

HX::journal::Filter filterOf(const std::vector<std::string>& patterns, const std::optional<std::string>& author) {
  HX::journal::Filter filter(patterns);
  // What the memory raises about its own keys would come beside each of them.
  const auto namesIt = [](const std::string& pattern) { return pattern.starts_with("HXMemory/"); };
  if (std::ranges::none_of(patterns, namesIt)) filter.exclude("HXMemory/");
  if (author) filter.addAuthor(*author);
  return filter;
}

WatchOptions optionsOf(Arguments& arguments, const std::vector<std::string>& patterns) {
  WatchOptions options;
  const auto author = arguments.option("--author");
  if (author && author->empty()) throw InputError("--author: the text is empty");
  options.filter = filterOf(patterns, author);
  options.asObjects = arguments.has("--json");
  options.raisesOnly = arguments.has("--raises");
  options.demands = !arguments.has("--no-demand");
  options.count = arguments.has("--once") ? std::optional<std::size_t>(1) : arguments.count("--count");
  options.follow.snapshot = arguments.has("--snapshot");
  options.follow.rate = arguments.number("--rate").value_or(0);
  if (arguments.has("--once") && arguments.has("--count")) throw InputError("--once and --count exclude each other");
  if (arguments.has("--since") && arguments.has("--snapshot")) {
    throw InputError("--since and --snapshot exclude each other");
  }
  return options;
}

void watch(Context& context, Arguments& arguments) {
  const auto patterns = somePatterns(arguments);
  const WatchOptions options = optionsOf(arguments, patterns);
  const auto duration = arguments.duration("--for");
  const auto since = arguments.option("--since");
  if (duration && context.isConsole()) throw InputError("--for is for a shell; unwatch ends it here");
  if (since && !toPosition(*since)) timeBefore(*since);
  if (!arguments.has("--wait")) requireKeys(context, patterns);
  // In a console each can be ended by itself.
  const auto begin = [&](const std::string& name, WatchOptions one) {
    if (since) one.follow.since = placeOf(context, *since);
    context.watches.add(name, context.target, std::move(one));
  };
  if (duration) context.watches.setDuration(*duration);
  if (!context.isConsole()) return begin("", options);
  for (const std::string& pattern : patterns) begin(pattern, optionsOf(arguments, {pattern}));
}

void unwatch(Context& context, Arguments& arguments) {
  for (const auto& pattern : somePatterns(arguments)) {
    if (context.watches.remove(pattern)) continue;
    throw std::runtime_error(
        fmt::format("not watched: {}{}", excerpt(pattern), didYouMean(pattern, context.watches.names())));
  }
}

std::string frequencyLine(const std::string& key, const Frequency::Summary& found, bool asObject) {
  if (asObject) {
    JsonObject line;
    line.add("key", key).add("hz", found.perSecond).add("writes", static_cast<std::int64_t>(found.count));
    if (found.count > 1) line.add("least", found.least).add("most", found.most).add("deviation", found.deviation);
    return line.add("time", formatTime(mw::systemNow())).text();
  }
  if (found.count < 2) return fmt::format("{} writes in {} s", found.count, Frequency::kSpan.count());
  return fmt::format("{:.6g} Hz, apart {:.6g} to {:.6g} s, deviation {:.3g} s, {} writes", found.perSecond, found.least,
                     found.most, found.deviation, found.count);
}

bool isWrite(const HX::journal::Change& change) {
  using HX::journal::What;
  return !change.isState &&
         (change.what == What::Stored || change.what == What::Raised || change.what == What::RaisedMicro);
}

/// Each second, or less.
/// @param meanwhile  Called now and then.
bool waitForNextLine(Context& context, std::optional<std::size_t>& left, const std::function<void()>& meanwhile = {}) {
  if (left && (*left)-- == 0) return false;
  const int pieces = meanwhile ? 20 : 1;
  for (int i = 0; i < pieces; ++i) {
    if (waitReadable({context.stop}, 1000ms / pieces) == 0) return false;
    if (meanwhile) meanwhile();
  }
  return context.output.works();
}

/// Counted in shared memory, where writers do not notice.
void frequencyOfViewed(Context& context, HX::HXMemoryProxy& memory, const std::string& key,
                       std::optional<std::size_t> left, bool asObject) {
  constexpr std::size_t kDepth = 4096;  // A quarter of a mebibyte: 80,000 a second, as often as it is emptied.
  auto stream = memory.stream<HX::HXValue>(key, kDepth, {.capacity = sizeof(double)});
  HX::Seen<HX::HXValue> item;
  stream.next(item);  // What was there before.
  Frequency seen;
  const auto empty = [&] {
    auto result = HX::ReadResult::Value;
    while (result == HX::ReadResult::Value || result == HX::ReadResult::Lost) {
      result = stream.next(item);
      if (result == HX::ReadResult::Value) seen.see(mw::systemNow() - item.age());
    }
    if (result == HX::ReadResult::Ended) throw std::runtime_error("the broker has gone");
  };
  while (waitForNextLine(context, left, empty)) {
    context.output.line(frequencyLine(key, seen.summary(mw::systemNow()), asObject));
  }
}

void frequency(Context& context, Arguments& arguments) {
  const bool asObject = arguments.has("--json");
  const bool isViewed = arguments.has("--view");
  auto left = arguments.count("--count");
  const std::string wanted = arguments.word("KEY");
  arguments.end();
  if (context.isConsole() && !left) left = 1;
  forEachKey(context, {wanted}, [&](HX::HXMemoryProxy& memory, const std::string& key) {
    memory.getType(key);  // What is not there would be waited for in vain.
    if (isViewed) return frequencyOfViewed(context, memory, key, left, asObject);
    const auto seen = std::make_shared<Frequency>();
    HX::journal::FollowOptions options;
    options.snapshot = false;
    const Demand demand(context.target, HX::journal::Filter({key}));
    const HX::journal::Follow follow = context.target.follow(
        HX::journal::Filter().addKey(key),
        [seen](const HX::journal::Change& change) {
          if (isWrite(change)) seen->see(change.time);
        },
        options);
    while (waitForNextLine(context, left)) {
      context.target.settle();  // Of a broker that has gone nothing would be seen.
      context.output.line(frequencyLine(key, seen->summary(mw::systemNow()), asObject));
    }
  });
}

constexpr Option kWatchOptions[] = {
    {"--json", "", "Print each change, and each gap, as one object of JSON, a line each"},
    {"--raises", "", "Print raises only"},
    {"--once", "", "End after the first change"},
    {"--count", "N", "End after N changes"},
    {"--for", "TIME", "End after this time: 5s, 2min"},
    {"--rate", "HZ", "Print each key so often a second at most: the latest, and how many it left out"},
    {"--since", "PLACE", "Begin with what changed after a place (EPOCH:REVISION) or in the last time (5m)"},
    {"--snapshot", "", "Begin with what the keys hold"},
    {"--author", "TEXT", "Print changes by this author only"},
    {"--wait", "", "Wait for keys that do not exist yet"},
    {"--no-demand", "", "Do not have the events' extractors run"}};
constexpr Option kFrequencyOptions[] = {kJson,
                                        {"--count", "N", "Print N lines; in a console one"},
                                        {"--view", "", "Count in shared memory, as streams do"}};

constexpr std::array kWatchCommands{
    Command{
        "watch", "KEY...", "Prints each change of these keys as it happens, until unwatch or Ctrl-C.",
        "KEY is a name, the beginning of names with / at its end, or a glob with * and ?; in a shell, quote it. The\n"
        "memory's own keys (HXMemory/...) are printed only where they are named. What happened is one of stored,\n"
        "raised, micro (raised as a micro-event), declared, described, removed, and state: what a key holds, after\n"
        "a gap or with --snapshot. An event with an extractor is asked for, so that it is produced.\n"
        "With --json as {\"key\":KEY,\"what\":WHAT,\"value\":VALUE,\"time\":TIME,\"at\":PLACE,\"nth\":N}, with\n"
        "\"leftOut\" and \"author\" where there is one; what was missed as\n"
        "{\"gap\":{\"from\":PLACE,\"to\":PLACE,\"changes\":N}}. It goes on when the broker ends and is started again.",
        "watch Door Arm/ '*/Battery'", watch, kWatchOptions, Use::Lasting},
    Command{"unwatch", "KEY...", "Ends what watch began.", "", "unwatch Door", unwatch, {}, Use::Console},
    Command{
        "hz", "KEY", "Prints each second how often a key is written or raised, until Ctrl-C.",
        "How many times a second, how far apart they are at least and at most, how much that deviates, and how many\n"
        "there were, each of the last 10 seconds.\n"
        "With --json as {\"key\":KEY,\"hz\":N,\"writes\":N,\"least\":S,\"most\":S,\"deviation\":S,\"time\":TIME}.",
        "hz Arm/Pose", frequency, kFrequencyOptions},
};

}  // namespace

std::span<const Command> watchCommands() { return kWatchCommands; }

}  // namespace korvo
