#include "base/format.h"
#include "base/output.h"
#include "commands/arguments.h"
#include "difference.h"
#include "line/commandline.h"
#include "recordingverbs.h"

#include <hxvalue/json.h>

#include <chrono>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

using HX::recording::Entry;
using HX::recording::Reader;

bool diffMoments(const std::string& file, Arguments& arguments) {
  const std::string first = arguments.word("TIME");
  const std::string second = arguments.word("TIME");
  const auto keys = restOf(arguments);
  Reader reader(file);
  const auto all = differencesOf(tableAt(reader, momentOf(reader, first).time, keys),
                                 tableAt(reader, momentOf(reader, second).time, keys));
  Output output(std::cout, std::cerr);
  const auto valueText = [](const std::optional<Entry>& entry) { return entry ? HX::toJson(entry->value) : "-"; };
  for (const Difference& one : all) {
    output.line(
        fmt::format("{}\t{}\t{}", formatName(one.key, NameReader::Shell), valueText(one.first), valueText(one.second)));
  }
  return all.empty();
}

std::string stepText(const std::optional<Entry>& entry, const Moment& start) {
  if (!entry) return "no more";
  const double seconds = std::chrono::duration<double>(entry->logged - start.time).count();
  return fmt::format("{} at {:+.3f} s", HX::toJson(entry->value), seconds);
}

bool diffRuns(const std::string& file, const std::string& align, Arguments& arguments) {
  const std::string otherFile = arguments.word("FILE");
  const auto keys = restOf(arguments);
  Reader reader(file);
  Reader otherReader(otherFile);
  const RecordedRun first{reader, momentOf(reader, align)};
  const RecordedRun second{otherReader, momentOf(otherReader, align)};
  const auto all = differencesOf(first, second, keys);
  Output output(std::cout, std::cerr);
  for (const Difference& one : all) {
    output.line(fmt::format("{}\tchange {}\t{}\t{}", formatName(one.key, NameReader::Shell), one.change,
                            stepText(one.first, first.start), stepText(one.second, second.start)));
  }
  return all.empty();
}

}  // namespace

Verb diffVerb() {
  const auto align = std::make_shared<std::string>();
  return {"diff",
          "FILE TIME TIME [KEY...]",
          "Says how the memory differs between two moments of a recording, or two recordings from a moment on.",
          "A line for each key that differs: its value at the first and at the second moment, - for none, with\n"
          "tabulators between.\n"
          "\n"
          "With --align the arguments are FILE FILE [KEY...]: a line for each key whose changes from that moment on\n"
          "are not the same, one after another, with the first change that differs. Order counts, times do not.",
          "diff fall.mcap start end Arm/\n"
          "diff monday.mcap tuesday.mcap --align Start",
          kRecordingGroup,
          "0  the same\n1  different, or it cannot be read\n2  wrong usage\n",
          [align](CLI::App& app) {
            app.add_option("--align", *align, "Compare two recordings, each from this moment on")->type_name("TIME");
          },
          [align](Arguments& arguments) {
            const std::string file = arguments.word("FILE");
            const bool isSame = align->empty() ? diffMoments(file, arguments) : diffRuns(file, *align, arguments);
            return isSame ? kDone : kFailed;
          }};
}

}  // namespace korvo
