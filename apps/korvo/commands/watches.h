#pragma once

#include "base/event.h"
#include "demand.h"
#include "watchlines.h"

#include <hxjournal/filter.h>
#include <hxjournal/follow.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace korvo {

class Output;
class Target;

/// What a watch is to print.
struct WatchOptions {
  HX::journal::Filter filter;
  HX::journal::FollowOptions follow;
  bool asObjects = false;
  bool raisesOnly = false;
  bool demands = true;               ///< Has the extractors of the events run.
  std::optional<std::size_t> count;  ///< It ends after so many lines about keys.
};

/// Prints what happens to some keys, a line each, on the event loop.
///
/// Who prints slowly falls behind, and is told of the gap; nobody waits for it.
class Watch {
 public:
  /// @param ended  Set when it has printed all that it was to, or nobody reads any more. Outlives it, as the others do.
  /// @throws std::runtime_error when the changes cannot be followed.
  Watch(Target& target, Output& output, Event& ended, WatchOptions options);
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  /// Once it has returned nothing is printed any more.
  ~Watch();

 private:
  void print(const HX::journal::Change& change);
  void print(const HX::journal::Gap& gap);
  bool isWanted(const HX::journal::Change& change) const;
  void line(const std::string& text);

  Output& output_;
  Event& ended_;
  const WatchLines lines_;
  const bool raisesOnly_;
  std::optional<std::size_t> left_;  // Of the callbacks, which do not overlap.
  std::optional<Demand> demand_;
  HX::journal::Follow follow_;  // The last member: it ends before what its callbacks use.
};

/// The watches of a console, or the one of a command line.
///
/// @par Threads  Any thread. The lock is not held while a watch begins or ends.
class Watches {
 public:
  explicit Watches(Output& output) : output_(output) {}
  Watches(const Watches&) = delete;
  Watches& operator=(const Watches&) = delete;
  ~Watches() { close(); }

  /// Begins a watch, in place of the one of the same name.
  /// @throws std::runtime_error when the changes cannot be followed, or after `close`.
  void add(const std::string& name, Target& target, WatchOptions options);
  /// Once it has returned nothing is printed by that watch any more.
  /// @return False when there is none.
  bool remove(const std::string& name);
  /// Ends every watch, and refuses new ones.
  void close();
  /// Their names, sorted.
  std::vector<std::string> names() const;

  /// Readable once a watch has printed all that it was to, or nobody reads the output any more.
  int endedFile() const { return ended_.file(); }
  /// How long the command line is to watch; none: until it is ended otherwise.
  void setDuration(std::chrono::nanoseconds duration) { duration_ = duration; }
  std::optional<std::chrono::nanoseconds> duration() const { return duration_; }

 private:
  using All = std::map<std::string, std::unique_ptr<Watch>>;

  Output& output_;
  Event ended_;
  std::optional<std::chrono::nanoseconds> duration_;
  mutable std::mutex mutex_;  // Guards all below.
  bool closed_ = false;
  All watches_;
};

}  // namespace korvo
