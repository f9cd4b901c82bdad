#include "arguments.h"
#include "base/format.h"
#include "base/output.h"
#include "base/suggestion.h"
#include "base/target.h"
#include "commands.h"

#include <hxproxies/hxfreshnessproxy.h>

#include <array>
#include <map>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXFreshnessProxy;

HXFreshnessProxy freshness(Context& context) { return HXFreshnessProxy(context.target.require("HXFreshness")); }

double secondsOf(HXFreshnessProxy::Duration duration) { return std::chrono::duration<double>(duration).count(); }

void listExpectations(Context& context, bool asObjects) {
  for (const auto& one : freshness(context).expectations()) {
    if (asObjects) {
      JsonObject line;
      line.add("key", one.key).add("age", secondsOf(one.age)).add("limit", secondsOf(one.limit));
      context.output.line(line.add("overdue", one.isOverdue).text());
    } else {
      context.output.line(fmt::format("{}\t{}\tof {}{}", context.shown(one.key), formatDuration(one.age),
                                      formatDuration(one.limit), one.isOverdue ? "\toverdue" : ""));
    }
  }
}

void forgetKeys(Context& context, Arguments& arguments) {
  if (arguments.atEnd()) throw InputError("KEY is missing");
  auto proxy = freshness(context);
  for (const auto& key : arguments.words("KEY")) {
    if (proxy.forget(key)) continue;
    std::vector<std::string> expected;
    for (auto& one : proxy.expectations()) expected.push_back(std::move(one.key));
    throw std::runtime_error(fmt::format("not expected: {}{}", excerpt(key), didYouMean(key, expected)));
  }
}

void expect(Context& context, Arguments& arguments) {
  if (arguments.has("--remove")) return forgetKeys(context, arguments);
  if (arguments.atEnd()) return listExpectations(context, arguments.has("--json"));
  std::map<std::string, HXFreshnessProxy::Duration> limits;
  while (!arguments.atEnd()) {
    const std::string key = arguments.word("KEY");
    limits[key] = toDuration("LIMIT", arguments.word("LIMIT"));
  }
  freshness(context).expect(limits);
}

constexpr Option kExpectOptions[] = {kJson, {"--remove", "", "Expect the keys no longer"}};

constexpr std::array kFreshnessCommands{
    Command{"expect", "[KEY LIMIT]...",
            "Expects keys to be written again within LIMIT (200ms, 5s, 2min), or lists what is expected.",
            "A key that is not written in time raises HXFreshness/Overdue once, with [KEY, SECONDS, LIMIT], and\n"
            "HXFreshness/Recovered when it is written again; one that is not there yet counts too. A second LIMIT\n"
            "replaces the first.\n"
            "Without a key a line for each: its name, how old it is, its limit, and whether it is overdue, with\n"
            "tabulators between; with --json as {\"key\":KEY,\"age\":SECONDS,\"limit\":SECONDS,\"overdue\":BOOL}.",
            "expect Lidar/Scan 200ms", expect, kExpectOptions},
};

}  // namespace

std::span<const Command> freshnessCommands() { return kFreshnessCommands; }

}  // namespace korvo
