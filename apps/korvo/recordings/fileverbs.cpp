#include "base/format.h"
#include "base/output.h"
#include "commands/arguments.h"
#include "commands/keyrecord.h"
#include "line/commandline.h"
#include "moments.h"
#include "recordingverbs.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <recording/mend.h>
#include <recording/table.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

using HX::journal::What;
using HX::recording::ChannelInfo;
using HX::recording::Entry;
using HX::recording::Reader;
using HX::recording::RecordingError;
using HX::recording::Table;

constexpr std::string_view kStatuses = "0  done\n1  it cannot be read, or is not what was asked for\n2  wrong usage\n";

std::string_view kindOf(const Entry& entry) {
  if (entry.what == What::Raised) return "Event";
  return entry.what == What::RaisedMicro ? "MicroEvent" : "Data";
}

struct Counts {
  std::uint64_t changes = 0;
  std::uint64_t states = 0;
  std::uint64_t gaps = 0;
  std::uint64_t missed = 0;
  std::map<std::string, std::uint64_t> keys;
  std::vector<std::pair<HX::recording::TimePoint, std::string>> notes;
};

Counts countOf(Reader& reader) {
  Counts counts;
  reader.forEach([&](const Entry& entry) {
    if (entry.kind == Entry::Kind::Gap) {
      ++counts.gaps;
      counts.missed += entry.missed;
      return true;
    }
    ++(entry.kind == Entry::Kind::State ? counts.states : counts.changes);
    ++counts.keys[entry.key];
    const bool isNote = entry.key == HX::recording::kNoteKey && entry.kind == Entry::Kind::Change;
    if (const auto* text = entry.value.stringIf(); text && isNote) counts.notes.emplace_back(entry.logged, *text);
    return true;
  });
  return counts;
}

std::string aboutText(const Reader& reader, std::string_view name) {
  const auto found = reader.about().find(name);
  return found == reader.about().end() ? "unknown" : found->second;
}

/// What it is of a whole.
std::string partText(const Reader& reader) {
  if (reader.about().contains("reach")) {
    return fmt::format("black box that reaches back {} of {}", aboutText(reader, "reach"), aboutText(reader, "asked"));
  }
  return "part " + aboutText(reader, "part");
}

// --- at ---

void printTable(const std::string& file, const std::string& moment, const HX::journal::Filter& keys, bool asObjects) {
  Reader reader(file);
  const Table table = tableAt(reader, momentOf(reader, moment).time, keys);
  Output output(std::cout, std::cerr);
  for (const auto& [key, entry] : table) {
    if (asObjects) {
      output.line(toLine({key, std::string(kindOf(entry)), entry.value, ""}));
    } else {
      output.line(fmt::format("{}\t{}\t{}", formatName(key, NameReader::Shell), HX::toJson(entry.value),
                              formatTime(entry.time)));
    }
  }
}

// --- recover ---

constexpr int kSomethingLost = 3;

int recover(const std::string& file) {
  namespace fs = std::filesystem;
  const fs::path mendedPath = file + ".mended";
  Output output(std::cout, std::cerr);
  std::error_code ignored;
  fs::remove(mendedPath, ignored);  // Of an attempt that was cut off.
  const auto mended = HX::recording::mend(file, mendedPath);
  for (const std::string& complaint : mended.complaints) output.note(complaint);
  if (!mended.complaints.empty()) {
    const fs::path damaged = file + ".damaged";
    if (fs::exists(damaged)) throw RecordingError(fmt::format("{} is in the way", damaged.string()));
    fs::rename(file, damaged);
    output.note(fmt::format("what it was is {} from now on", damaged.string()));
  }
  fs::rename(mendedPath, file);
  if (mended.lostBytes > 0) output.note(fmt::format("{} bytes at its end were no whole record", mended.lostBytes));
  output.line(fmt::format("{}: {} messages, whole", file, mended.messages));
  return mended.isAll() ? kDone : kSomethingLost;
}

std::string csvField(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

std::string_view whatText(const Entry& entry) {
  if (entry.kind == Entry::Kind::Gap) return "gap";
  if (entry.kind == Entry::Kind::State) return "state";
  constexpr std::string_view kWords[] = {"stored", "raised", "micro", "declared", "described", "removed"};
  return entry.isWithheld ? "withheld" : kWords[static_cast<std::size_t>(entry.what)];
}

Verb atVerb() {
  return {"at",
          "FILE TIME [KEY...]",
          "Prints the memory as it stood at a moment of a recording.",
          "TIME is local (2026-03-29T12:00:00, or 12:00:00 of the day on which it begins), a distance from the begin\n"
          "(+30s) or before the end (-5s), start, end, the first raise of an event (Fall) or a note (note:kick), or a\n"
          "distance from one of these (\"30s before Fall\", \"2s after note:kick\").\n"
          "With --json in the form that korvo import reads.",
          "at fall.mcap '2s before Fall' Arm/\n"
          "at --json fall.mcap end > then.jsonl",
          kRecordingGroup,
          kStatuses,
          [](CLI::App& app) { app.add_flag("--json")->description("Print what korvo import reads"); },
          [](Arguments& arguments) {
            const std::string file = arguments.word("FILE");
            const std::string moment = arguments.word("TIME");
            const auto keys = restOf(arguments);
            printTable(file, moment, keys, arguments.has("--json"));
            return kDone;
          }};
}

Verb recoverVerb() {
  return {"recover",
          "FILE",
          "Mends a recording that was cut off, or damaged: gives it its index and its end.",
          "It is written anew beside the old one, read again, and takes its place. Where the middle was damaged, the\n"
          "old one stays as FILE.damaged.",
          "recover fall.mcap",
          kRecordingGroup,
          "0  nothing is lost\n1  nothing of it can be read\n2  wrong usage\n3  something is lost, which is told\n",
          {},
          [](Arguments& arguments) {
            const std::string file = arguments.word("FILE");
            arguments.end();
            return recover(file);
          }};
}

}  // namespace

void printInfo(const std::string& file, bool asObject, bool listsKeys) {
  Reader reader(file);
  const Counts counts = countOf(reader);
  const Span span = spanOf(reader);
  Output output(std::cout, std::cerr);
  if (asObject) {
    JsonObject line;
    line.add("file", file).add("bytes", static_cast<std::int64_t>(reader.size())).add("whole", reader.isWhole());
    line.add("broker", aboutText(reader, "broker")).add("machine", aboutText(reader, "machine"));
    if (reader.about().contains("reach")) {
      line.add("reach", aboutText(reader, "reach")).add("asked", aboutText(reader, "asked"));
    }
    line.add("from", formatTime(span.begin)).add("to", formatTime(span.end));
    line.add("changes", static_cast<std::int64_t>(counts.changes));
    line.add("states", static_cast<std::int64_t>(counts.states));
    line.add("keys", static_cast<std::int64_t>(counts.keys.size()));
    line.add("gaps", static_cast<std::int64_t>(counts.gaps)).add("missed", static_cast<std::int64_t>(counts.missed));
    return output.line(line.text());
  }
  output.line(fmt::format("broker    {} on {}, {}", aboutText(reader, "broker"), aboutText(reader, "machine"),
                          partText(reader)));
  output.line(fmt::format("from      {}", formatTime(span.begin)));
  output.line(fmt::format("to        {}, {} later", formatTime(span.end), formatDuration(span.end - span.begin)));
  output.line(fmt::format("changes   {} of {} keys, which held {} values at its begin", counts.changes,
                          counts.keys.size(), counts.states));
  const std::uint64_t all = std::max<std::uint64_t>(1, counts.changes + counts.states);
  output.line(fmt::format("size      {} bytes, {} for each", reader.size(), reader.size() / all));
  output.line(fmt::format("missed    {}", counts.gaps == 0
                                              ? "nothing"
                                              : fmt::format("{} changes, in {} gaps", counts.missed, counts.gaps)));
  output.line(fmt::format("file      {}", reader.isWhole() ? "whole" : "without its end: korvo recover mends it"));
  for (const auto& [time, text] : counts.notes) {
    output.line(fmt::format("note      {}  {}", formatTime(time), escapeControls(text)));
  }
  if (!listsKeys) return;
  for (const auto& [key, count] : counts.keys) {
    output.line(fmt::format("{:>9} {}", count, formatName(key, NameReader::Shell)));
  }
}

void printCsv(const std::string& file, const HX::journal::Filter& keys) {
  Reader reader(file);
  Output output(std::cout, std::cerr);
  output.line("time,key,what,value,author,revision");
  reader.forEach([&](const Entry& entry) {
    if (entry.kind != Entry::Kind::Gap && !keys.wantsKey(entry.key)) return true;
    const auto seconds = std::chrono::duration_cast<std::chrono::nanoseconds>(entry.logged.time_since_epoch()).count();
    const std::string value = entry.kind == Entry::Kind::Gap ? std::to_string(entry.missed)
                              : entry.what == What::Removed  ? std::string()
                                                             : HX::toJson(entry.value);
    output.line(fmt::format("{}.{:09},{},{},{},{},{}", seconds / 1'000'000'000, seconds % 1'000'000'000,
                            csvField(entry.key), whatText(entry), csvField(value), csvField(entry.author),
                            entry.revision));
    return output.works();
  });
}

std::vector<Verb> fileVerbs() { return {atVerb(), diffVerb(), recoverVerb()}; }

}  // namespace korvo
