#pragma once

#include <hxerror/api.h>
#include <hxerror/mutex.h>
#include <hxview/layout.h>
#include <hxview/ring.h>
#include <hxview/segment.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace HX::view {

class Shown;

/// Who waits, as the writer sees it: a word that the waiting process writes and this one only reads. It is the sequence
/// that is waited for; 0 while nobody waits. A flag that the writer cleared instead would lose a wake-up: the one of
/// which the reader sets the flag between the writer's look and its clearing.
struct Bell {
  std::shared_ptr<const Mapping> page;
  const Word* word = nullptr;
  Word rung{0};  ///< For which sequence it was rung last: once is enough.
};

/// Who rings bells where that takes longer than a writer should be kept.
class HX_API Waker {
 public:
  virtual ~Waker();
  /// Calls `ring` on it soon, on another thread. Must not throw, nor wait.
  virtual void wakeLater(std::shared_ptr<const Shown> shown) noexcept = 0;
};

/// By what a key of the memory is shown to other processes: a cell, rings, or both, and the bells of those who wait.
/// Stays as it is; what changes is another one.
///
/// @par Locks   `Preparation` holds the record's own lock, which comes before that of the value.
/// @par Threads Publishing: one at a time, under the lock of the value. All else: any.
class HX_API Shown : public std::enable_shared_from_this<Shown> {
 public:
  /// A sequence that somebody may wait for.
  struct Target {
    Word* sequence = nullptr;
    std::vector<std::shared_ptr<Bell>> bells;
  };
  struct Parts {
    Cell* cell = nullptr;  ///< Null for none.
    std::vector<RingWriter> rings;
    bool isCellNew = false;                                ///< Nobody has seen it yet; likewise of the rings
    std::size_t ringsKnown = 0;                            ///< that are not among the first so many.
    std::vector<Target> targets;                           ///< Those with bells.
    std::vector<std::shared_ptr<const Segment>> segments;  ///< Where all of it lies.
    std::shared_ptr<Waker> waker;
  };

  /// @param parts  What it consists of.
  explicit Shown(Parts parts)
      : cell_(parts.cell), isPlain_(parts.rings.empty() && parts.targets.empty()), parts_(std::move(parts)) {}

  const Parts& parts() const noexcept { return parts_; }
  /// Whether a write has nothing to prepare, and nobody to wake.
  bool isPlain() const noexcept { return isPlain_; }
  /// Something will be published in a moment: has the line of the cell brought meanwhile, which its readers have. Much
  /// earlier would be too early: who reads all the time would have it again.
  void expect() const noexcept {
#ifdef __x86_64__
    if (cell_) asm volatile("prefetchw %0" : : "m"(*cell_));
#endif
  }

  /// Publishes a value, prepared if this is not plain.
  /// @param value              The one that was prepared.
  /// @param systemNanoseconds  Of the write, since 1970.
  void publish(const HXValue& value, std::int64_t systemNanoseconds) const noexcept;
  /// The same for a value that may have been written long ago.
  void publishOld(const HXValue& value, std::int64_t systemNanoseconds) const noexcept;
  /// Publishes that there is none, prepared likewise.
  /// @param state  Why.
  void publish(State state) const noexcept;
  /// Publishes how it stands in what is new. Before anybody else has this.
  /// @param value              What there is.
  /// @param systemNanoseconds  When it was written, since 1970.
  void introduce(const HXValue& value, std::int64_t systemNanoseconds) const;
  /// @param state  There is none, for this reason.
  void introduce(State state) const noexcept;
  /// Wakes those who wait for what has been published. With no lock held.
  void wake() const noexcept;
  /// Wakes all who sleep. For the waker.
  void ring() const noexcept;

 private:
  friend class Preparation;
  void prepare(const HXValue& value, std::size_t firstRing = 0) const;
  void prepare(State state, std::size_t firstRing = 0) const noexcept;
  void publish(const Content& content) const noexcept;
  void commit(const Content& content, std::size_t firstRing) const noexcept;

  // Together on a line: all that a plain write needs.
  Cell* const cell_;
  const bool isPlain_;
  const Parts parts_;
  mutable Mutex mutex_;  // Around preparing and publishing, where there are rings.
  mutable std::vector<RingWriter> rings_ HX_GUARDED_BY(mutex_) = parts_.rings;
  mutable std::vector<std::byte> encoded_ HX_GUARDED_BY(mutex_);
};

/// Wakes whom a write is to wake, once its locks have been let go of: make it before them.
class HX_API Afterwards {
 public:
  Afterwards() = default;
  Afterwards(const Afterwards&) = delete;
  Afterwards& operator=(const Afterwards&) = delete;
  ~Afterwards() {
    if (shown_) shown_->wake();
  }

 private:
  friend class Preparation;
  std::shared_ptr<const Shown> shown_;
};

/// Brings what is about to be written into the rings of a key, for a list takes long to encode, and the lock of the
/// value is not to be held so long. Until it goes nobody else does.
class HX_API Preparation {
 public:
  /// @param shown  Null for a key that nobody views.
  /// @param value  What is to be published.
  /// @param after  Sees to those who wait.
  /// @throws std::bad_alloc
  Preparation(const Shown* shown, const HXValue& value, Afterwards& after);
  /// @param shown  As above.
  /// @param state  To be published: there is no value.
  /// @param after  As above.
  Preparation(const Shown* shown, State state, Afterwards& after);
  Preparation(const Preparation&) = delete;
  Preparation& operator=(const Preparation&) = delete;
  ~Preparation() = default;

  /// Whether it is for this one.
  bool isFor(const Shown& shown) const noexcept { return &shown == shown_; }

 private:
  const Shown* shown_;
  std::optional<MutexLock> lock_;
};

/// What has values that can be shown: the memory, as modules of its process find it (`HXBroker::interfaceOf`).
class HX_API Host {
 public:
  virtual ~Host();
  /// Shows a key by `shown` from now on, in place of what it was shown by, and publishes in what is new of it how it
  /// stands; a key that comes later as well. Declares nothing.
  /// @param key    Which, whether it is there or not.
  /// @param shown  Null: no longer.
  /// @throws std::bad_alloc, with nothing changed.
  /// @par Threads  Any.
  virtual void showBy(const std::string& key, std::shared_ptr<const Shown> shown) = 0;
};

}  // namespace HX::view
