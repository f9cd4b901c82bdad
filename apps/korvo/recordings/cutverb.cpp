#include "base/output.h"
#include "commands/arguments.h"
#include "line/commandline.h"
#include "moments.h"
#include "recordingverbs.h"

#include <iostream>
#include <memory>
#include <recording/encoder.h>
#include <recording/filewriter.h>
#include <recording/table.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

using HX::journal::Change;
using HX::journal::What;
using HX::recording::Entry;
using HX::recording::Reader;
using HX::recording::TimePoint;

struct CutOptions {
  std::string output, from = "start", to = "end";
};

/// The entry as the memory told it. Its texts are the entry's.
Change changeOf(const Entry& entry, std::uint64_t epoch) {
  Change change;
  change.key = entry.key;
  change.value = entry.value;
  change.time = entry.time;
  change.at = {epoch, entry.revision};
  change.what = entry.what;
  change.kind = entry.what == What::Raised        ? HX::recording::kEvent
                : entry.what == What::RaisedMicro ? HX::recording::kMicroEvent
                                                  : HX::recording::kData;
  change.isState = entry.kind == Entry::Kind::State;
  change.withheld = entry.isWithheld;
  change.author = entry.author;
  return change;
}

/// A recording that begins with what the keys held at a moment.
class Cut {
 public:
  Cut(Reader& reader, const std::string& output)
      : reader_(reader),
        epoch_(HX::recording::numberOf(reader.about(), "epoch")),
        writer_(output, reader.about(), true),
        compressor_(HX::recording::Compression::Zstd) {}

  std::uint64_t run(TimePoint from, TimePoint to, const HX::journal::Filter& keys) {
    for (auto& [key, entry] : tableAt(reader_, from, keys)) {
      Entry state = entry;
      state.kind = Entry::Kind::State;
      add(state, from);
    }
    reader_.forEach([&](const Entry& entry) {
      const bool isWanted = entry.kind == Entry::Kind::Gap || keys.wantsKey(entry.key);
      if (isWanted && entry.logged > from && entry.logged <= to) add(entry, entry.logged);
      return true;
    });
    closeChunk();
    writer_.finish();
    return writer_.messages();
  }

 private:
  void add(const Entry& entry, TimePoint logged) {
    constexpr std::size_t kChunkBytes = std::size_t{1} << 20U;
    if (entry.kind == Entry::Kind::Gap) {
      const std::uint64_t end = entry.revision;
      encoder_.add(HX::journal::Gap{{epoch_, end - entry.missed}, {epoch_, end}, true}, logged);
    } else {
      encoder_.add(changeOf(entry, epoch_), logged);
    }
    if (encoder_.chunk().records.size() >= kChunkBytes) closeChunk();
  }
  void closeChunk() {
    if (!encoder_.chunk().isEmpty()) writer_.add(seal(encoder_.takeChunk(), compressor_));
  }

  Reader& reader_;
  const std::uint64_t epoch_;
  HX::recording::Encoder encoder_;
  HX::recording::FileWriter writer_;
  HX::recording::Compressor compressor_;
};

int cut(const CutOptions& options, Arguments& arguments) {
  const std::string file = arguments.word("FILE");
  const HX::journal::Filter keys = restOf(arguments);
  Reader reader(file);
  const TimePoint from = momentOf(reader, options.from).time;
  const TimePoint to = momentOf(reader, options.to).time;
  if (to < from) throw InputError("--to is before --from");
  const std::uint64_t messages = Cut(reader, options.output).run(from, to, keys);
  Output(std::cout, std::cerr).note(fmt::format("{}: {} messages", options.output, messages));
  return kDone;
}

}  // namespace

Verb cutVerb() {
  const auto options = std::make_shared<CutOptions>();
  return {"cut",
          "FILE [KEY...]",
          "Writes a part of a recording, by time or by keys, to another file.",
          "It begins with what the keys held at its first moment. Moments are told as for korvo at.",
          "cut fall.mcap --from '5s before Fall' --to '1s after Fall' -o short.mcap\n"
          "cut fall.mcap Arm/ -o arm.mcap",
          kRecordingGroup,
          "0  done\n1  it cannot be read, or the other one not be written\n2  wrong usage\n",
          [options](CLI::App& app) {
            app.add_option("-o,--output", options->output, "Write to this file, which is not there yet")
                ->type_name("FILE")
                ->required();
            app.add_option("--from", options->from, "Begin here")->type_name("TIME")->capture_default_str();
            app.add_option("--to", options->to, "End here")->type_name("TIME")->capture_default_str();
          },
          [options](Arguments& arguments) { return cut(*options, arguments); }};
}

}  // namespace korvo
