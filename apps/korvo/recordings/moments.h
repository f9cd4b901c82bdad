#pragma once

#include <cstdint>
#include <recording/reader.h>
#include <string>

namespace korvo {

struct Moment {
  HX::recording::TimePoint time;
  std::uint64_t revision = 0;  ///< Of the raise or the note that it is, which no clock can move; 0 for a mere time.
};

/// A moment of a recording as people say it: a time ("2026-03-29T12:00:00", "12:00:00" of the day on which it begins),
/// a distance from its begin ("+30s") or before its end ("-5s"), "start", "end", an event or a note ("Fall",
/// "note:kick"), or a distance from one of these ("30s before Fall", "2s after note:kick").
/// @throws InputError for what is none of these; RecordingError for an event that is not in the recording.
Moment momentOf(HX::recording::Reader& reader, const std::string& text);

/// From where to where a recording goes, as its chunks say. Where the clock was set back the end may be before the
/// begin.
struct Span {
  HX::recording::TimePoint begin;
  HX::recording::TimePoint end;
};
Span spanOf(const HX::recording::Reader& reader);

}  // namespace korvo
