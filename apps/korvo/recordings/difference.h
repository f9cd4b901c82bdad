#pragma once

#include "moments.h"

#include <hxjournal/filter.h>

#include <cstddef>
#include <optional>
#include <recording/entry.h>
#include <recording/reader.h>
#include <recording/table.h>
#include <string>
#include <vector>

namespace korvo {

/// A key that is not the same on two sides. A side without an entry has nothing more of it there.
struct Difference {
  std::string key;
  std::size_t change = 0;  ///< Of two runs: which of its changes is the first that differs, from 1.
  std::optional<HX::recording::Entry> first;
  std::optional<HX::recording::Entry> second;
};

/// What differs between two tables, by key.
std::vector<Difference> differencesOf(const HX::recording::Table& first, const HX::recording::Table& second);

/// A recording from a moment on.
struct RecordedRun {
  HX::recording::Reader& reader;
  Moment start;
};

/// The keys whose changes are not the same, one after another, by key. It is by their order that changes are compared,
/// not by their times: a clock that was set meanwhile is no difference.
std::vector<Difference> differencesOf(const RecordedRun& first, const RecordedRun& second,
                                      const HX::journal::Filter& keys);

}  // namespace korvo
