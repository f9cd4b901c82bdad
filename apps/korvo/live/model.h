#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/clock.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

/// How often something changes, judged by looking at it now and then.
///
/// As long as some looks see no change, changes are counted. What changes between any two looks changes faster than
/// they can count: its age at a look is then half its period on average, if it changes evenly.
class RateEstimate {
 public:
  /// @param changed  When it changed last, as seen at `now`.
  void see(mw::SystemTimePoint changed, mw::SystemTimePoint now);
  /// Changes a second; none before there is anything to compare.
  std::optional<double> perSecond() const;

 private:
  struct Look {
    mw::SystemTimePoint changed;
    mw::SystemTimePoint now;
  };
  std::deque<Look> looks_;  // The latest ones, the oldest first.
};

/// What was found out about a key at a look.
struct LiveFacts {
  std::string kind;
  HX::HXValue value;
  mw::SystemTimePoint time;
  std::size_t subscribers = 0;
};

/// What the live view shows of one key.
struct LiveRow {
  std::string key;
  std::optional<LiveFacts> facts;  ///< None before the first look.
  std::optional<double> rate;
  bool isChosen = false;
};

enum class LiveColumn { Key, Value, Age, Rate, Subscribers };

/// What a person sees of the memory: which keys, in which order, from which on.
///
/// @par Threads  One at a time.
class LiveModel {
 public:
  explicit LiveModel(std::string filter) : filter_(std::move(filter)) {}

  /// All there are; what is known of those that stay is kept.
  void setKeys(std::vector<std::string> keys);
  void add(const std::string& key);
  void remove(const std::string& key) { keys_.erase(key); }
  /// Ignored for a key that is not there any more.
  void learn(const std::string& key, LiveFacts facts, mw::SystemTimePoint now);

  /// Only keys that contain it are shown.
  void setFilter(std::string filter);
  const std::string& filter() const { return filter_; }
  /// Sorts by a column: keys and values upwards, the others with the latest, the fastest, the most first. The column
  /// that is sorted by already turns round.
  void sortBy(LiveColumn column);
  LiveColumn column() const { return column_; }
  bool isReversed() const { return reversed_; }

  /// Chooses a row so many further on, or the first or the last one. The page follows.
  void move(std::ptrdiff_t rows);
  void moveToBegin() { chosen_ = 0; }
  void moveToEnd() { chosen_ = keys_.size(); }

  std::size_t keyCount() const { return keys_.size(); }
  /// How many of them pass the filter.
  std::size_t shownCount() const;
  /// How many columns the longest of the keys that pass the filter takes, or took: it becomes less only with another
  /// filter, so that what stands beside the keys holds still.
  std::size_t keyColumns() const { return keyColumns_; }
  /// At most so many rows, those of the page. One of them is chosen.
  std::vector<LiveRow> page(std::size_t rows);
  /// At most `count` of the keys that pass the filter, going round from call to call: an order by what is known of keys
  /// is right only when something is known of all.
  std::vector<std::string> nextInTurn(std::size_t count);

 private:
  struct Known {
    std::optional<LiveFacts> facts;
    RateEstimate rate;
  };
  using Keys = std::map<std::string, Known>;
  using Entry = Keys::const_iterator;

  bool passes(const std::string& key) const { return key.find(filter_) != std::string::npos; }
  void widen(const std::string& key);
  std::vector<Entry> shown() const;
  bool isBefore(const Entry& a, const Entry& b) const;

  Keys keys_;
  std::string filter_;
  LiveColumn column_ = LiveColumn::Key;
  bool reversed_ = false;
  std::size_t first_ = 0;   // Of the keys shown, on top of the page.
  std::size_t chosen_ = 0;  // Of the keys shown.
  std::size_t keyColumns_ = 0;
  std::string turn_;  // The key that had its turn last.
};

}  // namespace korvo
