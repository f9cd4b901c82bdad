#include "commands/arguments.h"
#include "console/completion.h"
#include "line/help.h"
#include "line/verbs.h"

#include <iostream>

namespace korvo {
namespace {

/// `korvo complete -- WORD...`: the words of a command line behind `korvo`, the last one unfinished.
Verb completeVerb() {
  const auto complete = [](Arguments& arguments) {
    const auto words = arguments.words("WORD");
    for (const auto& candidate : completions(words)) std::cout << candidate << '\n';
    return 0;
  };
  return {"complete",
          "WORD...",
          "Prints what the last word may become, a line each.",
          "For the completion of shells, which puts -- before the words.",
          "complete -- get Ba",
          "",
          kStatusesOfAll,
          {},
          complete};
}

Verb manualVerb() {
  const auto print = [](Arguments& arguments) {
    const std::string name = arguments.atEnd() ? "" : arguments.word("COMMAND");
    arguments.end();
    const Verb* const verb = findVerb(name);
    if (!name.empty() && !verb) throw InputError(noSuchVerb(name));
    std::cout << manualPage(verb);
    return 0;
  };
  return {"manual",
          "[COMMAND]",
          "Prints the manual page of korvo, or of one command, for man.",
          "",
          "manual run | man -l -",
          "",
          kStatusesOfAll,
          {},
          print};
}

}  // namespace

std::vector<Verb> servantVerbs() { return {completeVerb(), manualVerb()}; }

}  // namespace korvo
