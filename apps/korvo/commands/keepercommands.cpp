#include "arguments.h"
#include "base/format.h"
#include "base/output.h"
#include "base/target.h"
#include "commands.h"

#include <hxcommon/hxproxy.h>
#include <hxjournal/filter.h>

#include <array>
#include <memory>
#include <stdexcept>

namespace korvo {
namespace {

using Texts = std::vector<std::string>;

std::shared_ptr<HX::HXProxy> keeper(Context& context) {
  if (auto found = context.target.find("HXKeeper")) return found;
  throw std::runtime_error("the broker keeps no keys (service HXKeeper): korvo run --keep PATTERN does");
}

Texts patternsOf(Arguments& arguments) {
  if (arguments.atEnd()) throw InputError("PATTERN is missing");
  return arguments.words("PATTERN");
}

void keep(Context& context, Arguments& arguments) {
  const Texts patterns = patternsOf(arguments);
  keeper(context)->call("keep", patterns);
}

void forget(Context& context, Arguments& arguments) {
  const Texts patterns = patternsOf(arguments);
  keeper(context)->call("forget", patterns);
}

void kept(Context& context, Arguments& arguments) {
  const bool asObjects = arguments.has("--json");
  const bool wantsPatterns = arguments.has("--patterns");
  const Texts wanted = arguments.words("PATTERN");
  const auto proxy = keeper(context);
  const HX::journal::Filter filter(wanted);
  const auto names =
      wantsPatterns ? proxy->call<HX::HXValue>("state")["keep"] : HX::HXValue(proxy->call<Texts>("kept"));
  for (const HX::HXValue& one : names.asList()) {
    const std::string& name = one.asString();
    if (!wantsPatterns && !filter.wantsKey(name)) continue;
    context.output.line(asObjects ? JsonObject().add(wantsPatterns ? "pattern" : "key", name).text()
                                  : context.shown(name));
  }
}

void flush(Context& context, Arguments& arguments) {
  arguments.end();
  keeper(context)->call("flush");
}

constexpr Option kKeptOptions[] = {kJson, {"--patterns", "", "List the patterns that say what is kept"}};

constexpr std::array kKeeperCommands{
    Command{
        "keep", "PATTERN...", "Keeps what is stored under these names across restarts.",
        "PATTERN is a key, a prefix that ends with /, or a glob. The broker must have been started with a keeper, as\n"
        "by korvo run --keep; what is added is remembered beside the keys, and counts at its next start too. Returns\n"
        "once what it names is on the disk.",
        "keep Config/ '*/Offset'", keep},
    Command{"kept", "[PATTERN...]", "Lists the keys that are kept, or those of them that the patterns name.",
            "With --json as {\"key\":KEY}, with --patterns as {\"pattern\":PATTERN}.", "kept Config/", kept,
            kKeptOptions},
    Command{"forget", "PATTERN...", "Keeps no longer what was added by keep, and takes it off the disk.",
            "The memory stays as it is, and so does what another pattern names. A pattern that keeps nothing now takes "
            "off\n"
            "the disk what earlier settings have left there.",
            "forget Config/", forget},
    Command{"flush", "", "Returns once all that was written under kept names is on the disk.",
            "Fails with the reason when the disk refuses it.", "flush", flush},
};

}  // namespace

std::span<const Command> keeperCommands() { return kKeeperCommands; }

}  // namespace korvo
