#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/clock.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

/// How often something changes, counted by the second.
class RateCount {
 public:
  /// Nothing before this moment counts.
  void begin(mw::SystemTimePoint now) { first_ = last_ = secondOf(now); }
  /// It has changed so often.
  void add(std::uint32_t changes, mw::SystemTimePoint at);
  /// Changes a second, of the last whole seconds: of one where there were many, of up to ten where there were few. None
  /// before the first has passed.
  std::optional<double> perSecond(mw::SystemTimePoint now) const;

 private:
  static constexpr std::int64_t kSeconds = 10;
  static std::int64_t secondOf(mw::SystemTimePoint time) {
    return std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
  }
  static std::size_t slotOf(std::int64_t second);

  std::array<std::uint32_t, kSeconds + 1> counts_{};  // Of the latest seconds, each in the slot of its number.
  std::int64_t first_ = 0;
  std::int64_t last_ = 0;  // The latest that anything was counted in.
};

/// What is known of a key.
struct LiveFacts {
  std::string kind;
  HX::HXValue value;
  mw::SystemTimePoint time;
  std::optional<std::size_t> subscribers;  ///< None as long as nobody has asked.
};

/// What the live view shows of one key.
struct LiveRow {
  std::string key;
  std::optional<LiveFacts> facts;
  std::optional<double> rate;
  bool isOverdue = false;  ///< It was expected to be written, and was not.
  bool isChosen = false;
};

enum class LiveColumn { Key, Value, Age, Rate, Subscribers };

/// What a person sees of the memory: which keys, in which order, from which on.
///
/// @par Threads  One at a time.
class LiveModel {
 public:
  explicit LiveModel(std::string filter) : filter_(std::move(filter)) {}

  /// What a change, or a state, tells of a key. What is known of its subscribers is kept.
  /// @param nth  The how-manieth change of the key; changes that were not told count too.
  void learn(const std::string& key, LiveFacts facts, std::uint32_t nth, bool isState, mw::SystemTimePoint now);
  /// It has changed in another way than in its value.
  void count(const std::string& key, std::uint32_t nth, mw::SystemTimePoint now);
  void learnSubscribers(const std::string& key, std::size_t count);
  void setOverdue(const std::string& key, bool isOverdue);
  void remove(const std::string& key) { keys_.erase(key); }
  /// All keys are told anew; those that are not named until the end have gone.
  void beginSnapshot();
  void keep(const std::string& key);
  void endSnapshot();

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
  std::vector<LiveRow> page(std::size_t rows, mw::SystemTimePoint now);

 private:
  struct Known {
    std::optional<LiveFacts> facts;
    RateCount rate;
    std::uint32_t nth = 0;
    bool isOverdue = false;
    bool isNamed = true;  // By the snapshot that is under way.
  };
  using Keys = std::map<std::string, Known>;
  using Entry = Keys::const_iterator;

  bool passes(const std::string& key) const { return key.find(filter_) != std::string::npos; }
  void widen(const std::string& key);
  std::vector<Entry> shown() const;
  bool isBefore(const Entry& a, const Entry& b, mw::SystemTimePoint now) const;

  Keys keys_;
  std::string filter_;
  LiveColumn column_ = LiveColumn::Key;
  bool reversed_ = false;
  std::size_t first_ = 0;   // Of the keys shown, on top of the page.
  std::size_t chosen_ = 0;  // Of the keys shown.
  std::size_t keyColumns_ = 0;
};

}  // namespace korvo
