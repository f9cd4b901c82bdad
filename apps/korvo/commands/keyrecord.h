#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/genericobject.h>

#include <string>
#include <string_view>
#include <vector>

namespace korvo {

/// A key as it is exported and imported.
struct KeyRecord {
  std::string key;
  std::string kind = "Data";  ///< "Data", "Event" or "MicroEvent".
  HX::HXValue value;
  std::string description;
};

/// One line: {"key":…,"kind":…,"value":…,"description":…}. Where JSON cannot carry the value as it is (a float, a
/// binary, not a number), "msgpack" has it too, as hexadecimal digits.
std::string toLine(const KeyRecord& record);

/// The inverse of `toLine`. "msgpack" counts more than "value", "kind" may be missing and means "Data" then, and so may
/// "description"; other names are ignored.
/// @throws std::runtime_error that says what is wrong: no JSON, no object, no key, an unknown kind.
KeyRecord toRecord(std::string_view line);

/// Has the memory hold what the record says, in the way that fits its kind: events are raised, so that their
/// subscribers are told, or only declared when they have no value.
/// @return The answers of the calls that were made, not waited for.
std::vector<mw::Future<mw::AnyValue>> store(mw::GenericObject& memory, const KeyRecord& record);

}  // namespace korvo
