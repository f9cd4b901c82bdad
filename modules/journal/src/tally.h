#pragma once

#include <hxjournal/journal.h>
#include <hxvalue/hxvalue.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace HX {

/// What the retained changes say of keys: how often they change, who writes them, what is odd about that. Counted anew
/// each time it is asked for; nothing is kept in between.
class Tally {
 public:
  using TimePoint = journal::TimePoint;

  struct Last {
    TimePoint time;
    journal::Position at;
    journal::What what = journal::What::Stored;
    std::string author;  ///< Empty for the process itself.
  };
  struct OfKey {
    std::uint64_t changes = 0;  ///< Values that were written.
    std::uint64_t inSecond = 0;
    std::uint64_t inMinute = 0;
    std::uint64_t retyped = 0;  ///< So often a value of another type, or another kind, took the place of one.
    std::uint64_t removed = 0;
    std::set<std::string> authors;  ///< Of values.
    Last last;
  };

  /// @param journal  What is counted.
  /// @param filter   Of which keys.
  /// @param now      Until when; after the last change.
  Tally(const journal::Journal& journal, const journal::Filter& filter, TimePoint now);

  bool isRecording() const { return retained_.isRecording; }
  const journal::Retained& retained() const { return retained_; }
  /// How far back it reaches; at most to the oldest retained change.
  std::chrono::nanoseconds reach() const;
  const std::map<std::string, OfKey, std::less<>>& keys() const { return keys_; }
  /// Null where nothing of the key is retained.
  const OfKey* find(std::string_view key) const;
  std::uint64_t inSecond() const { return inSecond_; }

 private:
  void count(const journal::Change& change);

  const TimePoint now_;
  journal::Retained retained_;
  std::map<std::string, OfKey, std::less<>> keys_;
  std::map<std::string, std::pair<HXValue::Type, std::uint8_t>, std::less<>> types_;  // Of the latest values.
  std::uint64_t inSecond_ = 0;
};

}  // namespace HX
