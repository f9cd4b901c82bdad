#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/clock.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace HX::fleet {

/// A value with a text form larger than this is not sent; what stands in its place tells the size.
constexpr std::size_t kLargestValue = std::size_t{256} << 10U;

/// What is told of a key: an event, or its last value.
struct Record {
  std::string key;
  HXValue value;
  std::string kind = "Data";  ///< "Data", "Event" or "MicroEvent".
  std::uint64_t n = 0;        ///< The how-manieth raise of this key since the start of `run`.
  std::string run;            ///< Names a start of the robot's memory.
  mw::SystemTimePoint time{};
};

/// One object of JSON: key, value, kind, n, run, time; "msgpack" with the value's MessagePack in hexadecimal where JSON
/// does not carry it as it is.
std::string toPayload(const Record& record);
/// The same into a text whose room is used again.
void writePayload(const Record& record, std::string& text);
/// @throws std::runtime_error saying what is wrong with it.
Record toRecord(std::string_view payload);

/// "2026-11-22T06:47:12.123456Z"
std::string toText(mw::SystemTimePoint time);
/// @throws std::runtime_error naming the text.
mw::SystemTimePoint toTime(const std::string& text);

/// Events that were never sent, because others that came later needed the place.
struct Dropped {
  std::string key;
  std::uint64_t first = 0;  ///< The smallest n.
  std::uint64_t last = 0;
  std::uint64_t count = 0;
  bool operator==(const Dropped&) const = default;
};
std::string toPayload(const Dropped& dropped, const std::string& run);

/// An answer that is an error: a number for who asks by program, a text for people, and the error itself.
struct Failure {
  int code = 500;
  std::string text;
  std::string body;  ///< The error as a list of JSON, as the wire between processes has it.
};
constexpr int kWrongArguments = 400;
constexpr int kNotAllowed = 403;
constexpr int kNotFound = 404;
constexpr int kTooMany = 429;
constexpr int kFailure = 500;

/// @param error  What a method threw.
/// @param code   500, or what is known better.
Failure toFailure(const std::exception& error, int code = kFailure);
/// Throws what the other side's method did: an HXError with its five fields, or a std::runtime_error.
/// @param body   As `Failure` has it.
/// @param text   For a body that is none.
[[noreturn]] void throwFailure(std::string_view body, const std::string& text);

}  // namespace HX::fleet
