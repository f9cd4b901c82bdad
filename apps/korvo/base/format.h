#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/anyvalue.h>
#include <libmw/clock.h>
#include <libmw/text.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace korvo {

using mw::escapeControls;

/// As much of what was given as an error shows of it, cut between characters.
std::string excerpt(std::string_view text);

/// A name of a listing: bare where nothing needs quotes, so that it can be used as it stands, else as a JSON string.
///
/// On a line of the console a name with blanks needs quotes. A shell reads a line back as a name unless it is empty,
/// begins or ends with a blank, has characters that would not stay on the line, or has quotes already.
enum class NameReader { Shell, Console };
std::string formatName(std::string_view name, NameReader reader);

/// What a method returned as one line of JSON; none when it returned nothing.
///
/// A pointer is a string with its hexadecimal address, an object `{"object":TYPE,"id":N}` or null, and what has no
/// value form `{"type":TYPE}`.
std::optional<std::string> formatResult(const mw::AnyValue& result);

/// Local time to the microsecond: "2026-03-29T12:00:00.000250+02:00".
std::string formatTime(mw::SystemTimePoint time);

/// For people, to three digits: "200ms", "1.5s", "12min", "3h".
std::string formatDuration(std::chrono::nanoseconds duration);

/// A value and when it was set.
struct Stamped {
  HX::HXValue value;
  mw::SystemTimePoint time;
};
/// From the memory's form, [value, seconds, microseconds].
/// @throws std::runtime_error when it has another form.
Stamped toStamped(const HX::HXValue& triple);

/// Writes an object whose names come in the order in which they are added.
class JsonObject {
 public:
  JsonObject& add(std::string_view name, const HX::HXValue& value);
  /// @param json  A JSON text.
  JsonObject& addText(std::string_view name, std::string_view json);
  /// Adds "value", and "replaced" when U+FFFD stands for bytes in it that JSON has no place for.
  JsonObject& addValue(const HX::HXValue& value);
  /// The text, as long as this object is not changed.
  std::string text() const { return text_ + "}"; }

 private:
  std::string text_ = "{";
};

}  // namespace korvo
