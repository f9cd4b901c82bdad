#include "recordingverbs.h"

#include "commands/arguments.h"
#include "line/commandline.h"

#include <algorithm>
#include <utility>

#include <CLI/CLI.hpp>

namespace korvo {
namespace {

bool isRecording(const std::string& word) { return word.ends_with(".mcap"); }

void addInfo(Verb& verb) {
  verb.summary = "Prints all there is to know of a key as one line of JSON, or what is in a recording.";
  verb.details =
      "Of a recording: from when to when it goes, how many changes of how many keys, how large, what was missed,\n"
      "whether it is whole, and the notes; with --json as one line of JSON.";
  verb.addOptions = [others = verb.addOptions](CLI::App& app) {
    others(app);
    app.add_flag("--keys")->description("Of a recording, list the keys, with how many changes each has");
  };
  verb.run = [other = verb.run](Arguments& arguments) {
    Arguments ahead = arguments;
    if (arguments.atEnd() || !isRecording(ahead.word("KEY"))) return other(arguments);
    ahead.end();
    printInfo(arguments.word("FILE"), arguments.has("--json"), arguments.has("--keys"));
    return static_cast<int>(kDone);
  };
}

void addExport(Verb& verb) {
  verb.addOptions = [others = verb.addOptions](CLI::App& app) {
    others(app);
    app.add_flag("--csv")->description("Print the changes of a recording as comma separated fields: FILE [KEY...]");
  };
  verb.run = [other = verb.run](Arguments& arguments) {
    if (!arguments.has("--csv")) return other(arguments);
    const std::string file = arguments.word("FILE");
    printCsv(file, restOf(arguments));
    return static_cast<int>(kDone);
  };
}

}  // namespace

HX::journal::Filter restOf(Arguments& arguments) {
  HX::journal::Filter filter;
  while (!arguments.atEnd()) filter.add(arguments.word("KEY"));
  return filter;
}

void addRecordings(std::vector<Verb>& verbs) {
  const auto find = [&](std::string_view name) { return std::ranges::find(verbs, name, &Verb::name); };
  addInfo(*find("info"));
  addExport(*find("export"));
  verbs.insert(verbs.end(), {recordVerb(), replayVerb(), cutVerb()});
  for (Verb& verb : fileVerbs()) verbs.push_back(std::move(verb));
}

}  // namespace korvo
