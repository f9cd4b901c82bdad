#include "moments.h"

#include "base/format.h"
#include "commands/arguments.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <vector>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::recording::Entry;
using HX::recording::Reader;
using HX::recording::RecordingError;
using HX::recording::TimePoint;

/// Local time, with a fraction of seconds or a zone behind it, or neither.
std::optional<TimePoint> absoluteOf(const std::string& text, TimePoint begin) {
  const std::time_t day =
      std::chrono::system_clock::to_time_t(std::chrono::time_point_cast<std::chrono::system_clock::duration>(begin));
  std::tm time{};
  ::localtime_r(&day, &time);
  time.tm_sec = 0;
  const char* rest = nullptr;
  for (const char* const format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%H:%M:%S"}) {
    rest = ::strptime(text.c_str(), format, &time);
    if (rest) break;
  }
  if (!rest) return {};
  double fraction = 0;
  if (*rest == '.') {
    char* end = nullptr;
    fraction = std::strtod(rest, &end);
    rest = end;
  }
  time.tm_isdst = -1;
  std::time_t seconds = ::mktime(&time);
  if (*rest != '\0') {
    std::tm zone{};
    const char* const end = ::strptime(rest, "%z", &zone);
    if (!end || *end != '\0') return {};
    seconds = ::timegm(&time) - zone.tm_gmtoff;
  }
  return TimePoint(std::chrono::seconds(seconds)) + std::chrono::nanoseconds(std::llround(fraction * 1e9));
}

/// When an event was raised first, or a note made that begins with what is behind "note:".
std::optional<Moment> eventOf(Reader& reader, const std::string& text) {
  constexpr std::string_view kNote = "note:";
  const bool isNote = text.starts_with(kNote);
  const std::string key = isNote ? std::string(HX::recording::kNoteKey) : text;
  std::optional<Moment> found;
  for (std::size_t i = 0; i < reader.chunks().size() && !found; ++i) {
    const auto& channels = reader.chunks()[i].channels;
    const auto hasKey = [&](const auto& one) {
      const auto channel = reader.channels().find(one.first);
      return channel == reader.channels().end() || channel->second.topic == key ||
             channel->second.role == HX::recording::ChannelInfo::Role::More;
    };
    if (reader.hasIndex() && std::ranges::none_of(channels, hasKey)) continue;
    reader.forEach(
        [&](const Entry& entry) {
          if (entry.key != key || entry.kind != Entry::Kind::Change || !entry.value.isValid()) return true;
          const std::string* const note = entry.value.stringIf();
          if (isNote && !(note && note->starts_with(text.substr(kNote.size())))) return true;
          found = Moment{entry.logged, entry.revision};
          return false;
        },
        i, i + 1);
  }
  return found;
}

[[noreturn]] void failMoment(const std::string& text) {
  throw InputError(
      fmt::format("{} is no moment: write 2026-03-29T12:00:00, +30s, -5s, start, end, Fall, \"30s before Fall\" "
                  "or \"2s after note:kick\"",
                  excerpt(text)));
}

}  // namespace

Span spanOf(const Reader& reader) {
  const auto& chunks = reader.chunks();
  if (chunks.empty()) return {};
  return {HX::recording::timePoint(chunks.front().start), HX::recording::timePoint(chunks.back().end)};
}

Moment momentOf(Reader& reader, const std::string& text) {
  const Span span = spanOf(reader);
  if (text == "start") return {span.begin};
  if (text == "end") return {span.end};
  for (const auto& [word, sign] : {std::pair(std::string(" before "), -1), std::pair(std::string(" after "), 1)}) {
    const std::size_t place = text.find(word);
    if (place == std::string::npos) continue;
    const TimePoint from = momentOf(reader, text.substr(place + word.size())).time;
    return {from + sign * toDuration("TIME", text.substr(0, place))};
  }
  const bool isRelative = text.size() > 1 && (text[0] == '+' || text[0] == '-');
  if (isRelative) {
    const auto distance = toDuration("TIME", text.substr(1));
    return {text[0] == '+' ? span.begin + distance : span.end - distance};
  }
  if (const auto time = absoluteOf(text, span.begin)) return {*time};
  if (const auto moment = eventOf(reader, text)) return *moment;
  const bool looksLikeTime = !text.empty() && text[0] >= '0' && text[0] <= '9';
  if (text.empty() || looksLikeTime) failMoment(text);
  throw RecordingError(fmt::format("{}: {} is not raised in it", reader.path().string(), excerpt(text)));
}

}  // namespace korvo
