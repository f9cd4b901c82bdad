#pragma once

#include "line/verbs.h"

#include <hxjournal/filter.h>

#include <string>
#include <string_view>
#include <vector>

namespace korvo {

class Arguments;

inline constexpr std::string_view kRecordingGroup = "Recordings";

/// The keys, prefixes and globs that are left of the arguments; none: all keys.
HX::journal::Filter restOf(Arguments& arguments);

Verb recordVerb();
Verb replayVerb();
Verb cutVerb();
Verb diffVerb();
std::vector<Verb> fileVerbs();  ///< That only read, or mend.

/// Prints what is in a recording.
/// @param asObject   As one line of JSON.
/// @param listsKeys  Each key with the number of its changes too.
void printInfo(const std::string& file, bool asObject, bool listsKeys);
/// Prints each change as a line of comma separated fields.
void printCsv(const std::string& file, const HX::journal::Filter& keys);

}  // namespace korvo
