#include "arguments.h"
#include "base/format.h"
#include "base/output.h"
#include "base/target.h"
#include "commands.h"
#include "inspecttext.h"
#include "keys.h"

#include <hxcommon/hxproxy.h>
#include <hxvalue/json.h>
#include <libmw/local.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;

/// Of the terminal, or what fits most of them.
std::size_t widthOfLines() {
  winsize size{};
  return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 100;
}

std::shared_ptr<HX::HXProxy> journalOf(Context& context) {
  auto found = context.target.find("HXJournal");
  if (!found) throw std::runtime_error("the broker does not offer its journal (service HXJournal): korvo run does");
  return found;
}

void print(Context& context, const std::vector<std::string>& lines) {
  for (const std::string& line : lines) context.output.line(line);
}

void explain(Context& context, Arguments& arguments) {
  const bool asJson = arguments.has("--json");
  const std::string key = arguments.word("KEY");
  arguments.end();
  const auto journal = journalOf(context);
  forEachKey(context, {key}, [&](HX::HXMemoryProxy&, const std::string& one) {
    const auto answer = journal->call<HXValue>("explain", one);
    if (asJson) return context.output.line(HX::toJson(answer));
    print(context, explainText(answer, mw::systemNow(), widthOfLines()));
  });
}

void demand(Context& context, Arguments& arguments) {
  const bool asJson = arguments.has("--json");
  const std::string extractor = arguments.atEnd() ? "" : arguments.word("EXTRACTOR");
  arguments.end();
  const auto answer = journalOf(context)->call<HXValue>("demand", extractor);
  if (!asJson) return print(context, demandText(answer, mw::systemNow()));
  for (const HXValue& one : answer.asList()) context.output.line(HX::toJson(one));
}

/// Who views what, where that is offered.
HXValue viewsOf(Context& context) {
  const auto views = context.target.find("HXViews");
  return views ? views->call<HXValue>("report") : HXValue();
}

void doctor(Context& context, Arguments& arguments) {
  const bool asJson = arguments.has("--json");
  arguments.end();
  const auto answer = journalOf(context)->call<HXValue>("report");
  const HXValue views = viewsOf(context);
  const auto brokers = mw::describeRunningBrokers();
  if (asJson) {
    HXValue::Map all = answer.asMap();
    HXValue::List list;
    for (const auto& one : brokers) {
      list.push_back(HXValue::map({{"name", one.name}, {"process", one.process}, {"version", one.version}}));
    }
    all.emplace("brokers", HXValue::list(std::move(list)));
    all.emplace("views", views);
    context.output.line(HX::toJson(HXValue::map(std::move(all))));
  } else {
    print(context, doctorText(brokers, answer, views, mw::systemNow()));
  }
  const std::size_t wrong = answer["wrong"].asList().size();
  if (wrong > 0)
    throw std::runtime_error(
        fmt::format("{} wrong", wrong == 1 ? "one thing is" : fmt::format("{} things are", wrong)));
}

constexpr Option kOneJson[] = {{"--json", "", "Print all of it as one object of JSON, on one line"}};

constexpr std::array kInspectCommands{
    Command{
        "explain", "KEY", "Tells all there is to know of a key, on one screen.",
        "Its value; when it was changed last, by whom, and how often; whether it is overdue (korvo expect); who is\n"
        "subscribed, in which process, since when, how long the last call took, and who waits for whom; its\n"
        "extractor, and for whom that runs; the signals mapped to it; what is odd. What only the journal knows is\n"
        "known while it records: as long as somebody follows, a minute longer, and always with korvo run --journal\n"
        "keep.",
        "explain Arm/Pose", explain, kOneJson},
    Command{"demand", "[EXTRACTOR]", "Tells what extractors produce, for whom, and what for nobody.",
            "A line for each event that has an extractor. With --json the same as objects, a line each.", "demand",
            demand, kJsonOnly},
    Command{"doctor", "", "Tells how the broker is, and what is wrong.",
            "The brokers that are running; keys, memory and changes a second; the slowest subscribers, and those that\n"
            "were dropped; who follows the changes, and falls behind; extractors that run for nobody, or do not run\n"
            "although asked; keys with several authors, and overdue ones; who views what in shared memory. Fails when "
            "something is wrong.",
            "doctor", doctor, kOneJson},
};

}  // namespace

std::span<const Command> inspectCommands() { return kInspectCommands; }

}  // namespace korvo
