#include "base/event.h"
#include "base/format.h"
#include "base/output.h"
#include "commands/arguments.h"
#include "hosting/stopsignals.h"
#include "line/brokername.h"
#include "line/commandline.h"
#include "line/remotetarget.h"
#include "moments.h"
#include "player.h"
#include "recordingverbs.h"

#include <hxcommon/hxproxy.h>
#include <libmw/clock.h>
#include <libmw/log.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string_view>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

using HX::journal::What;
using HX::recording::Entry;
using HX::recording::Reader;
using HX::recording::TimePoint;
using namespace std::chrono_literals;

struct ReplayOptions {
  std::string broker, from = "start", to = "end";
  std::vector<std::string> maps, except;
  double rate = 1;
  bool loops = false;
  bool isForced = false;
};

/// A terminal from which keys are read as they are pressed.
class Keyboard {
 public:
  Keyboard() : isThere_(isatty(STDIN_FILENO) != 0 && ::tcgetattr(STDIN_FILENO, &before_) == 0) {
    if (!isThere_) return;
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;
  ~Keyboard() {
    if (isThere_) ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }

  /// -1 where there is none.
  int file() const { return isThere_ ? STDIN_FILENO : -1; }

  Wish read() const {
    std::array<char, 8> keys{};
    const ssize_t count = ::read(STDIN_FILENO, keys.data(), keys.size());
    const std::string_view pressed(keys.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    if (pressed.empty() || pressed == "q") return {Wish::Kind::End, {}};
    if (pressed == " ") return {Wish::Kind::Pause, {}};
    if (pressed == ".") return {Wish::Kind::Step, {}};
    if (pressed == "\x1b[C") return {Wish::Kind::Seek, 10s};
    if (pressed == "\x1b[D") return {Wish::Kind::Seek, -10s};
    return {};
  }

 private:
  termios before_{};
  const bool isThere_;
};

/// Writes into a memory, ahead of the answers, so that the way to the broker counts once for many.
class MemoryWriter {
 public:
  explicit MemoryWriter(const HX::HXProxy& memory) : memory_(memory.asObject()) {}

  void write(const Entry& entry, const std::string& key) {
    auto& object = memory_.get();
    const bool isState = entry.kind == Entry::Kind::State;
    const bool isEvent = entry.what == What::Raised || entry.what == What::RaisedMicro;
    if (entry.isWithheld) return;
    if (entry.what <= What::RaisedMicro) kinds_.insert_or_assign(key, entry.what);
    if (entry.what == What::Removed) {
      const auto kind = kinds_.find(key);
      const What what = kind == kinds_.end() ? What::Stored : kind->second;
      // What is not there any more is no error.
      forgiven_.push_back(object.async(what == What::Raised        ? "removeEvent"
                                       : what == What::RaisedMicro ? "removeMicroEvent"
                                                                   : "removeData",
                                       key));
    } else if (entry.what == What::Described) {
      forgiven_.push_back(object.async("setDescription", key, entry.value));
    } else if (entry.what == What::Declared || (isState && isEvent)) {
      forgiven_.push_back(object.async("declareEvent", key));  // Raised then, its subscribers would be told anew.
    } else if (isEvent) {
      sent_.push_back(object.async(entry.what == What::Raised ? "raiseEvent" : "raiseMicroEvent", key, entry.value));
    } else {
      sent_.push_back(object.async("insertData", key, entry.value));
    }
    awaitDownTo(kAhead);
  }
  void finish() { awaitDownTo(0); }

 private:
  static constexpr std::size_t kAhead = 256;

  void awaitDownTo(std::size_t count) {
    for (; forgiven_.size() > count; forgiven_.pop_front()) forgiven_.front().wait();
    while (sent_.size() > count) {
      auto first = std::move(sent_.front());
      sent_.pop_front();
      std::move(first).value();
    }
  }

  const mw::AnyObject memory_;
  std::map<std::string, What, std::less<>> kinds_;  // Of what was written.
  std::deque<mw::Future<mw::AnyValue>> sent_;
  std::deque<mw::Future<mw::AnyValue>> forgiven_;
};

/// Looks whether somebody else writes what is to be written.
/// @throws std::runtime_error naming the key and its author.
void requireNobodyElse(Target& target, const Reader& reader, const PlayOptions& options) {
  constexpr auto kBefore = 2s;
  constexpr auto kWatched = 300ms;
  std::set<std::string, std::less<>> keys;
  for (const auto& [id, channel] : reader.channels()) {
    const bool isKey = channel.role == HX::recording::ChannelInfo::Role::Key;
    if (isKey && options.wants(channel.topic)) keys.insert(options.nameOf(channel.topic));
  }
  std::mutex mutex;  // Guards `found`.
  std::string found;
  HX::journal::FollowOptions follow;
  follow.snapshot = false;
  follow.since = target.changesAt(mw::systemNow() - kBefore);
  const auto look = [&](const HX::journal::Change& change) {
    if (change.isState || !keys.contains(change.key)) return;
    const std::lock_guard lock(mutex);
    found = fmt::format("{} is written by {}", change.key,
                        change.author.empty() ? std::string_view("the broker itself") : change.author);
  };
  {
    const HX::journal::Follow following = target.follow(HX::journal::Filter(), look, follow);
    waitReadable({}, kWatched);
  }
  if (!found.empty()) throw std::runtime_error(found + "; --force writes it all the same");
}

std::pair<std::string, std::string> readMap(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw InputError(fmt::format("--map: {} is no map: write 'Arm/=Sim/Arm/'", excerpt(text)));
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

std::string progressText(const Span& span, TimePoint now, bool isPaused) {
  constexpr std::int64_t kWidth = 30;
  const auto whole = std::max<std::int64_t>(1, (span.end - span.begin).count());
  const auto done =
      std::clamp<std::int64_t>((now - span.begin).count() / std::max<std::int64_t>(1, whole / kWidth), 0, kWidth);
  return fmt::format("{:#>{}}{:.>{}} {} of {}{}  space pauses, . steps, arrows seek, q ends", "", done, "",
                     kWidth - done, formatDuration(now - span.begin), formatDuration(span.end - span.begin),
                     isPaused ? ", paused" : "");
}

int replay(const ReplayOptions& given, Arguments& arguments) {
  const std::string file = arguments.word("FILE");
  PlayOptions options;
  options.keys = restOf(arguments);
  for (const std::string& pattern : given.except) options.keys.exclude(pattern);
  for (const std::string& map : given.maps) options.maps.push_back(readMap(map));
  options.rate = given.rate;
  Reader reader(file);
  options.from = momentOf(reader, given.from).time;
  options.to = momentOf(reader, given.to).time;
  const StopSignals signals;
  mw::log::setLevel(mw::LogLevel::Silent);
  Output output(std::cout, std::cerr);
  if (isatty(STDERR_FILENO)) output.showStatus();
  RemoteTarget target(given.broker, 5s);
  if (!given.isForced) requireNobodyElse(target, reader, options);
  MemoryWriter memory(*target.require("HXMemory"));
  const Keyboard keyboard;
  const Span span{options.from, options.to};
  const auto wait = [&](std::chrono::nanoseconds duration) -> Wish {
    const auto limit =
        std::chrono::ceil<std::chrono::milliseconds>(std::min<std::chrono::nanoseconds>(duration, 200ms));
    switch (waitReadable({signals.file(), keyboard.file()}, duration < 0ns ? 1h : limit)) {
      case 0:
        return {Wish::Kind::End, {}};
      case 1:
        return keyboard.read();
      default:
        return {};
    }
  };
  Player player(
      reader, options, [&](const Entry& entry, const std::string& name) { memory.write(entry, name); }, wait,
      [&](TimePoint now, bool isPaused) { output.status(progressText(span, now, isPaused)); });
  while (player.play() && given.loops) {
  }
  memory.finish();
  output.status("");
  output.note(fmt::format("{} changes replayed", player.told()));
  return kDone;
}

}  // namespace

Verb replayVerb() {
  const auto options = std::make_shared<ReplayOptions>();
  const auto addOptions = [options](CLI::App& app) {
    app.add_option("--rate", options->rate, "So many times as fast as it was")
        ->check(CLI::Range(1e-6, 1e6))
        ->type_name("FACTOR")
        ->capture_default_str();
    app.add_option("--from", options->from, "Begin here")->type_name("TIME")->capture_default_str();
    app.add_option("--to", options->to, "End here")->type_name("TIME")->capture_default_str();
    app.add_flag("--loop", options->loops, "Begin anew at the end");
    app.add_option("--map", options->maps, "Write keys that begin so under another beginning; may be repeated")
        ->allow_extra_args(false)
        ->type_name("BEGIN=OTHER");
    app.add_option("--except", options->except, "Leave these keys out; may be repeated")
        ->allow_extra_args(false)
        ->type_name("PATTERN");
    app.add_flag("--force", options->isForced, "Write keys that somebody else writes too");
    app.add_option("--broker", options->broker, kBrokerHelp)
        ->type_name("NAME")
        ->check(CLI::Validator(checkBrokerName, ""));
  };
  return {"replay",
          "FILE [KEY...]",
          "Writes and raises into a running broker what was recorded, with the pauses that were between.",
          "It begins with what the keys held: data is stored, events are declared. Then come the changes in their\n"
          "order. Where somebody else has written one of the keys in the last seconds it refuses, for the robot would\n"
          "be told two things: --force goes on. Moments are told as for korvo at.\n"
          "\n"
          "On a terminal the space bar pauses and goes on, a dot makes one step, the arrows seek ten seconds back and\n"
          "forth, q ends.",
          "replay fall.mcap --rate 2 --from '5s before Fall'\n"
          "replay fall.mcap --map 'Arm/=Sim/Arm/' Arm/ --loop",
          kRecordingGroup,
          kStatusesOfAsking,
          addOptions,
          [options](Arguments& arguments) { return replay(*options, arguments); }};
}

}  // namespace korvo
