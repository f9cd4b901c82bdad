#pragma once

#include <hxerror/api.h>
#include <hxjournal/change.h>
#include <hxjournal/executor.h>
#include <hxjournal/filter.h>
#include <hxjournal/follow.h>
#include <hxjournal/source.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HX::journal {

class Afterwards;
class Core;

/// What is written about a change. The name must stay where it is until the change is forgotten: for as long as the
/// item lives, and after its removal in the grave.
struct Entry {
  HXValue value;
  TimePoint time{};
  const char* characters = nullptr;
  std::uint32_t length = 0;
  std::uint32_t nth = 0;
  std::uint32_t author = 0;  // Filled in by the journal.
  What what = What::Stored;
  std::uint8_t kind = 0;
  bool changedKind = false;
  bool byAddress = false;

  std::string_view name() const noexcept { return {characters, length}; }
  void setName(std::string_view name) noexcept {
    characters = name.data();
    length = static_cast<std::uint32_t>(name.size());
  }
};
static_assert(sizeof(Entry) == 48);

/// Where the name of a removed item lies until nobody reads changes of it any more. Made before the removal, since a
/// removal must not run out of memory.
struct Grave {
  std::shared_ptr<const std::string> name;
  std::uint64_t last = 0;  ///< Revision of the removal. Filled in by the journal.
};

/// What one can go back to.
struct Retained {
  Position from;                   ///< Going on after this place misses nothing that is retained.
  Position latest;                 ///< The place of the latest change.
  std::optional<TimePoint> since;  ///< The time of the first change after `from`; none when there is none.
  bool isRecording = false;        ///< Otherwise what changes now is not retained.
};

/// One of those who follow. For diagnosis.
struct FollowerInfo {
  std::string who;           ///< Who began to follow, as an author; empty for the process itself.
  std::uint64_t behind = 0;  ///< Changes that it has not been told yet.
  std::uint64_t gaps = 0;    ///< So often it had fallen behind further than changes are retained.
  bool isPaused = false;
};

/// The feed of all changes of a table, in order.
///
/// A ring holds the latest changes while somebody follows, and some time longer, so that who comes back can go on where
/// it was. Followers read the ring and the table: nothing is queued for them, so one that is slow costs nothing, makes
/// no writer wait and is never ended for it; it is told of the gap instead, and gets the states of what changed. In one
/// order: for each key, revisions rise as its values become readable; a thread's own changes rise. Who has seen a value
/// in the table finds its change in the feed, and who was told a change finds that value, or a newer one, in the table.
///
/// @par Locks
/// Outer ones first: the journal's own for who follows, the table's, an item's, the ring's. The ring's is a leaf of
/// some ten instructions. No callback runs under any of them.
/// @par Threads  All functions are safe from any thread. Those of followers must not be called with the table locked.
class HX_API Journal {
 public:
  struct Options {
    std::size_t chunks = 256;                         ///< Of 256 changes each, 48 bytes apiece. A power of two.
    std::size_t bytes = std::size_t{64} << 20U;       ///< Of texts, binaries, lists and maps among the values.
    std::chrono::nanoseconds linger{60'000'000'000};  ///< Recording goes on for so long after the last follower left.
  };

  /// @param source    Whose changes these are. Must outlive the journal, or its `close`.
  /// @param executor  Runs the followers.
  Journal(Source& source, std::shared_ptr<Executor> executor);
  Journal(Source& source, std::shared_ptr<Executor> executor, Options options);
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
  ~Journal();

  /// Ends all followers, waits for their callbacks, and stops recording. For good; done by the destructor too, but the
  /// source may want it before its own end.
  void close() noexcept;

  // --- For the table's writers, while the source is told to record ---------------------------------------------------

  /// Appends a change. Under the table's lock and the item's: appended before the value can be read, and after readers
  /// without a lock were turned away from the old one. Allocates nothing and cannot fail.
  /// @param entry  All of the change but its revision and author, which are set here.
  /// @param after  Takes what dies by it, and the waking of followers, out of the caller's locks.
  /// @return The revision of the change.
  std::uint64_t append(Entry&& entry, Afterwards& after) noexcept;
  /// Appends the last change of an item. `grave` has one element, with the name that `entry` refers to.
  void appendRemoval(Entry&& entry, std::list<Grave>& grave, Afterwards& after) noexcept;

  // --- For followers -------------------------------------------------------------------------------------------------

  /// Follows the changes.
  /// @param filter    Which of them.
  /// @param options   Where to begin, how often, how soon; further callbacks.
  /// @param onChange  Runs on the executor, one at a time, with no lock held; may write what it follows, and may end
  /// the
  ///                  follower. What it throws goes on to the executor; that change counts as told.
  /// @throws std::runtime_error when the journal is closed; std::bad_alloc, with nothing changed.
  Follow follow(Filter filter, std::function<void(const Change&)> onChange, FollowOptions options = {});

  /// Records always, so that who comes back can go on after any time; or, as at first, only for followers and a while.
  void keep(bool on);
  bool isRecording() const;
  /// The place of the latest change.
  Position position() const;
  /// What the ring holds at this moment. It may be less at the next: a busy writer turns it quickly.
  Retained retained() const;
  /// The place after which to go on for the changes from `time` on: before the first retained change that is not older.
  /// Since when changes are retained, `retained` says. Reads the ring, within a millisecond or so.
  /// @param time  As the items have it.
  Position at(TimePoint time) const;
  /// Looks through what is retained, oldest first, without following: nothing is recorded for it that is not anyway.
  /// @param filter  What is looked at, authors excepted.
  /// @param use     Runs on the calling thread, while nobody can begin or cease to follow: must not use the journal.
  void scan(const Filter& filter, const std::function<void(const Change&)>& use) const;
  /// Who follows, in the order in which they began.
  std::vector<FollowerInfo> followers() const;

 private:
  friend Afterwards;
  const std::shared_ptr<Core> core_;
};

/// What has a journal, as modules of the same process find it: `HXBroker::interfaceOf`. The memory is one.
class HX_API JournalOwner {
 public:
  virtual ~JournalOwner();
  /// May be kept, also beyond the end of its owner, at which it is closed.
  /// @par Threads  Any.
  virtual std::shared_ptr<Journal> sharedJournal() = 0;
};

/// What an append leaves to be done once the caller has let go of its locks: make it before them.
class HX_API Afterwards {
 public:
  /// @param journal  Which is appended to; must outlive this.
  /// @param isLast   Whether the caller does nothing more after it but return to whoever has called it.
  explicit Afterwards(Journal& journal, bool isLast = false) noexcept : journal_(journal), isLast_(isLast) {}
  Afterwards(const Afterwards&) = delete;
  Afterwards& operator=(const Afterwards&) = delete;
  ~Afterwards();

 private:
  friend class Ring;
  static constexpr std::size_t kValues = 5;  // What the new entry replaces, and four for the sake of the bytes.

  Journal& journal_;
  HXValue values_[kValues];
  std::list<Grave> graves_;
  const bool isLast_;
  bool ring_ = false;
};

}  // namespace HX::journal
