#pragma once

#include "ringlock.h"

#include <hxjournal/journal.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <span>
#include <vector>

namespace HX::journal {

constexpr std::size_t kChunkSize = 256;

/// A part of the ring. What lies below the ring's head does not change while it is pinned.
struct Chunk {
  std::array<Entry, kChunkSize> entries;
  std::uint64_t first = 0;  // Revision of the first entry; 0: never used.
  std::uint32_t pins = 0;   // How many readers are in it.
  bool detached = false;    // Out of the ring, and still pinned.
};

/// The latest changes, in chunks.
///
/// A reader pins the chunk that it reads, and reads below the head without a lock. A writer that comes round to a
/// pinned chunk takes a spare one in its place, and the pinned one is a spare when its reader has left it: with one
/// spare for each reader there is always one.
///
/// @par Threads  Any. The lock is a leaf: nothing is called, allocated or destroyed under it.
class Ring {
 public:
  using Chunks = std::list<Chunk>;

  /// When a follower sleeps, and how it is woken. Guarded by the ring's lock, for "look, then sleep" must not miss an
  /// append.
  struct Sleeper {
    bool asleep = false;
    std::uint64_t nap = 0;     // Counts the sleeps, so that a timer of an earlier one wakes nobody.
    std::uint64_t cursor = 0;  // Where it fell asleep.
  };

  /// What a reader got: entries, nothing (there are none yet below the limit), or that it has been lapped. Holds the
  /// pin.
  class Pin {
   public:
    Pin(Ring& ring, std::uint64_t cursor, std::uint64_t limit, std::uint64_t behind) noexcept;
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;
    ~Pin();

    bool isLapped() const noexcept { return lapped_; }
    std::span<const Entry> entries() const noexcept { return entries_; }

   private:
    Ring& ring_;
    Chunks::iterator chunk_;
    std::span<const Entry> entries_;
    bool lapped_ = false;
  };

  explicit Ring(const Journal::Options& options) noexcept;

  /// Memory for `open`.
  struct Store {
    Chunks chunks;
    std::vector<Chunks::iterator> ring;
  };
  Store makeStore() const;
  void open(Store& store) noexcept;
  /// Forgets all changes, and gives back what holds them. Nobody appends or reads any more.
  void close(Store& store, std::list<Grave>& graves) noexcept;

  std::uint64_t append(Entry& entry, std::list<Grave>* grave, Afterwards& after) noexcept;

  void addSpare(Chunks& one) noexcept;
  Chunks takeSpare() noexcept;

  /// The revision that the next change gets.
  std::uint64_t head() const noexcept;

  struct Extent {
    std::uint64_t began;   // What the first change got, or will get, since recording began.
    std::uint64_t oldest;  // The oldest change that can be read.
    std::uint64_t head;
    std::uint64_t lastRemoval;  // 0: none.
  };
  Extent extent() const noexcept;

  /// @return False when there is something to read at `cursor`; the sleeper stays awake.
  bool fallAsleep(Sleeper& sleeper, std::uint64_t cursor) noexcept;
  /// For a sleeper who needs no bell: it is looked after.
  std::uint64_t fallAsleepUnrung(Sleeper& sleeper, std::uint64_t cursor) noexcept;
  /// @return Whether it was asleep, and is not now.
  bool wake(Sleeper& sleeper) noexcept;
  bool wakeFrom(Sleeper& sleeper, std::uint64_t nap) noexcept;
  bool wakeIfNews(Sleeper& sleeper) noexcept;
  /// The next append has the bell rung. @return False, and nothing is done, when `head` is the head no more.
  bool askForBell(std::uint64_t head) noexcept;
  void askForBell() noexcept;
  /// The next append need not have it rung.
  void forgetBell() noexcept;

 private:
  void turn(std::uint64_t revision) noexcept HX_REQUIRES(lock_);
  void releaseOldest(Afterwards& after) noexcept HX_REQUIRES(lock_);
  void releaseGraves(Afterwards& after) noexcept HX_REQUIRES(lock_);
  Chunks::iterator& slotOf(std::uint64_t revision) noexcept HX_REQUIRES(lock_) {
    return ring_[(revision / kChunkSize) & (ring_.size() - 1)];
  }
  void unpin(Chunks::iterator chunk) noexcept;

  const std::size_t chunks_;
  const std::size_t budget_;

  mutable RingLock lock_;
  std::vector<Chunks::iterator> ring_ HX_GUARDED_BY(lock_);
  Chunks used_ HX_GUARDED_BY(lock_);
  Chunks spare_ HX_GUARDED_BY(lock_);
  Chunks detached_ HX_GUARDED_BY(lock_);
  Chunk* current_ HX_GUARDED_BY(lock_) = nullptr;
  std::uint64_t head_ HX_GUARDED_BY(lock_) = 0;
  std::uint64_t began_ HX_GUARDED_BY(lock_) = 0;
  std::uint64_t oldest_ HX_GUARDED_BY(lock_) = 0;
  // From here on the values are there. Older ones than `oldest_` may be: nobody reads them.
  std::uint64_t kept_ HX_GUARDED_BY(lock_) = 0;
  std::uint64_t lastRemoval_ HX_GUARDED_BY(lock_) = 0;
  std::size_t bytes_ HX_GUARDED_BY(lock_) = 0;
  std::list<Grave> graves_ HX_GUARDED_BY(lock_);
  bool ringWanted_ HX_GUARDED_BY(lock_) = false;
};

}  // namespace HX::journal
