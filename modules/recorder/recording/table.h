#pragma once

#include "reader.h"

#include <hxjournal/filter.h>

#include <map>
#include <string>

namespace HX::recording {

/// Keys with their last entries; what was removed is not among them.
using Table = std::map<std::string, Entry, std::less<>>;

/// How many of the first chunks have something up to a time. Where the clock was set back while it was recorded, times
/// come twice: the first is meant.
std::size_t chunksUntil(const Reader& reader, TimePoint time);

/// The memory as it stood at a time: after the last change, in the order of the file, that is not later.
///
/// Reads backwards from there until every key has been met, so what it costs hangs on how long ago the key that has
/// been quiet longest was written.
/// @param keys  Which ones are looked for.
/// @throws RecordingError
Table tableAt(Reader& reader, TimePoint time, const journal::Filter& keys);

/// Brings a table to where it is after an entry.
void advance(Table& table, const Entry& entry);

}  // namespace HX::recording
