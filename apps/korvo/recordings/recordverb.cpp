#include "base/event.h"
#include "base/format.h"
#include "base/output.h"
#include "commands/arguments.h"
#include "hosting/stopsignals.h"
#include "line/brokername.h"
#include "line/commandline.h"
#include "line/remotetarget.h"
#include "line/repeatedoption.h"
#include "recordingverbs.h"

#include <hxcommon/units.h>
#include <libmw/clock.h>
#include <libmw/log.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>
#include <memory>
#include <recorder.h>
#include <recording/filename.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

using HX::recording::Recorder;
using HX::recording::RecorderOptions;
using HX::recording::RecorderState;
using namespace std::chrono_literals;

struct RecordOptions {
  std::string broker, file, split, keep, duration, compression = "zstd", minFree = "1GiB", whenLow = "stop";
  std::vector<std::string> except, rates;
  bool noIndex = false;
};

/// "1GiB" or "10min".
/// @throws InputError when it is neither.
void readAmount(const char* option, const std::string& text, std::uint64_t& bytes, std::chrono::nanoseconds& time) {
  if (text.empty()) return;
  try {
    bytes = HX::toBytes(text);
    return;
  } catch (const std::runtime_error&) {  // Then it is a time.
  }
  try {
    time = HX::toDuration(HX::HXValue(text));
  } catch (const std::runtime_error&) {
    throw InputError(fmt::format("{}: {} is no size and no duration: write 1GiB or 10min", option, excerpt(text)));
  }
}

std::pair<std::string, double> readRate(const std::string& text) {
  const std::size_t equals = text.rfind('=');
  double hertz = 0;
  const bool isNumber = equals != std::string::npos && CLI::detail::lexical_cast(text.substr(equals + 1), hertz);
  if (!isNumber || equals == 0 || !(hertz > 0)) {
    throw InputError(fmt::format("--rate: {} is no rate: write 'Lidar/*=5'", excerpt(text)));
  }
  return {text.substr(0, equals), hertz};
}

std::string machineName() {
  std::array<char, 256> name{};
  ::gethostname(name.data(), name.size() - 1);
  return name.data();
}

RecorderOptions recorderOptions(const RecordOptions& given, std::vector<std::string> keys) {
  RecorderOptions options;
  options.file = given.file.empty() ? HX::recording::defaultFileName() : given.file;
  options.keys = std::move(keys);
  options.except = given.except;
  for (const std::string& rate : given.rates) options.rates.insert(readRate(rate));
  readAmount("--split", given.split, options.splitBytes, options.splitTime);
  readAmount("--keep-last", given.keep, options.keepBytes, options.keepTime);
  try {
    options.minFree = given.minFree == "0" ? 0 : HX::toBytes(given.minFree);
  } catch (const std::runtime_error& error) {
    throw InputError(fmt::format("--min-free: {}", error.what()));
  }
  options.removesOldest = given.whenLow == "oldest";
  options.compression = HX::recording::toCompression(given.compression);
  options.hasIndex = !given.noIndex;
  options.about = {{"machine", machineName()}, {"version", KORVO_VERSION}, {"program", "korvo record"}};
  return options;
}

std::string sizeText(std::uint64_t bytes) {
  constexpr std::array kUnits{"B", "KiB", "MiB", "GiB", "TiB"};
  auto size = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; size >= 1000 && unit + 1 < kUnits.size(); ++unit) size /= 1024;
  return fmt::format("{:.{}f} {}", size, unit == 0 ? 0 : 1, kUnits[unit]);
}

std::string lossText(const RecorderState& state) {
  std::string text;
  if (state.gaps > 0) text += fmt::format(", {} gaps, {} changes missed", state.gaps, state.missed);
  if (state.isCrowded) text += ", more keys than channels: the further ones share one";
  return text;
}

/// Waits a moment. @return Whether there is nothing more to wait for.
bool waitsForNothing(const StopSignals& signals, const Event& failed) {
  return waitReadable({signals.file(), failed.file()}, 5ms) >= 0;
}

/// Shows how it goes until it is to end.
void awaitEnd(const Recorder& recorder, const StopSignals& signals, const Event& failed, Output& output,
              std::chrono::nanoseconds duration) {
  using Clock = std::chrono::steady_clock;
  const bool isLimited = duration > 0ns;
  const auto end = Clock::now() + duration;
  std::uint64_t before = 0;
  while (output.works()) {
    auto pause = std::chrono::milliseconds(1000);
    if (isLimited) pause = std::min(pause, std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()));
    if (pause.count() <= 0 || waitReadable({signals.file(), failed.file()}, pause) >= 0) break;
    const RecorderState state = recorder.state();
    output.status(fmt::format("{}: {} changes, {}, {}/s{}", state.file.string(), state.changes, sizeText(state.bytes),
                              state.changes - before, lossText(state)));
    before = state.changes;
  }
  output.status("");
}

int record(const RecordOptions& given, Arguments& arguments) {
  std::vector<std::string> keys;
  while (!arguments.atEnd()) keys.push_back(arguments.word("KEY"));
  RecorderOptions options = recorderOptions(given, std::move(keys));
  const auto duration = given.duration.empty() ? 0ns : toDuration("--for", given.duration);
  const StopSignals signals;
  mw::log::setLevel(mw::LogLevel::Silent);
  Output output(std::cout, std::cerr);
  if (isatty(STDERR_FILENO)) output.showStatus();
  RemoteTarget target(given.broker, 5s);
  const auto broker = target.ownBroker();
  options.about.insert_or_assign("broker", target.broker());
  Event failed;
  options.onFinished = [&](const std::filesystem::path& path) { output.line(path.string()); };
  options.onFailure = [&](const std::string&) { failed.set(); };
  const HX::recording::Feed feed{[&](auto filter, auto onChange, auto follow) {
                                   return target.follow(std::move(filter), std::move(onChange), std::move(follow));
                                 },
                                 [&] { return target.retainedChanges().latest; }};
  Recorder recorder(std::move(options), feed);
  while (!recorder.state().hasBegun && !waitsForNothing(signals, failed)) {
  }
  output.note(fmt::format("recording {} into {}; Ctrl-C ends it", target.broker(), recorder.state().file.string()));
  awaitEnd(recorder, signals, failed, output, duration);
  recorder.stop();
  const RecorderState state = recorder.state();
  output.note(
      fmt::format("{} changes of {} keys, {}{}", state.changes, state.keys, sizeText(state.bytes), lossText(state)));
  return kDone;
}

void addOptions(CLI::App& app, RecordOptions& options) {
  app.add_option("-o,--output", options.file, "Write to this file; by default korvo-DATE-TIME.mcap")->type_name("FILE");
  addRepeated(app, "--except", options.except, "Leave these keys out; may be repeated", "PATTERN");
  addRepeated(app, "--rate", options.rates, "Record each key of a pattern so often a second at most; may be repeated",
              "PATTERN=HZ");
  app.add_option("--for", options.duration, "End after this time: 5s, 2min")->type_name("TIME");
  app.add_option("--split", options.split, "Begin another file after so much: 1GiB, 10min")->type_name("AMOUNT");
  app.add_option("--keep-last", options.keep, "Remove the oldest files, so that so much is kept: 20GiB, 24h")
      ->type_name("AMOUNT");
  app.add_option("--min-free", options.minFree, "Leave so much of the disk free; 0 takes all")
      ->type_name("SIZE")
      ->capture_default_str();
  app.add_option("--when-low", options.whenLow, "When less is free: stop, or remove the oldest file")
      ->check(CLI::IsMember({"stop", "oldest"}))
      ->type_name("WHAT")
      ->capture_default_str();
  app.add_option("--compress", options.compression, "zstd, lz4 or none")
      ->check(CLI::IsMember({"zstd", "lz4", "none"}))
      ->type_name("HOW")
      ->capture_default_str();
  app.add_flag("--no-index", options.noIndex, "Half the size; viewers have to read the whole file");
  app.add_option("--broker", options.broker, kBrokerHelp)
      ->type_name("NAME")
      ->check(CLI::Validator(checkBrokerName, ""));
}

}  // namespace

Verb recordVerb() {
  const auto options = std::make_shared<RecordOptions>();
  return {
      "record",
      "[KEY...]",
      "Records what the keys hold and every change of them into a file, until Ctrl-C.",
      "KEY is a name, the beginning of names with / at its end, or a glob with * and ?; without one, all keys. The\n"
      "file is one of MCAP, which viewers of robots' data open. It begins with what all keys hold; what changes is\n"
      "in it with time, author and type within half a second. Each file that is whole is printed as a line.\n"
      "\n"
      "With --split one file follows another (FILE-2, FILE-3, ...), each of which stands alone. What could not be\n"
      "recorded in time is counted, and told in the file. After a crash or a loss of power, korvo recover mends it.",
      "record\n"
      "record -o fall.mcap Arm/ Legs/ --for 1min\n"
      "record 'Lidar/*' Arm/ --rate 'Lidar/*=5' --split 10min --keep-last 24h",
      kRecordingGroup,
      kStatusesOfAsking,
      [options](CLI::App& app) { addOptions(app, *options); },
      [options](Arguments& arguments) { return record(*options, arguments); }};
}

}  // namespace korvo
