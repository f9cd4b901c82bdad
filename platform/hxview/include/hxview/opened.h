#pragma once

#include <hxerror/api.h>
#include <hxerror/mutex.h>
#include <hxview/layout.h>
#include <hxview/ring.h>
#include <hxview/segment.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace HX::view {

/// What a viewer asks for.
struct Wish {
  std::string key;
  std::size_t capacity = 0;  ///< Bytes of a value; 0 for a cell, which holds a number or a bool.
  std::size_t depth = 0;     ///< Values that a stream goes back; 0 for a view, which wants the latest.
  std::chrono::milliseconds aliveWithin{100};  ///< How soon the viewer wants to know that the broker is frozen.
};

/// Where a value lies. Immutable.
struct Place {
  std::shared_ptr<const Mapping> mapping;
  const Cell* cell = nullptr;  ///< Null: the ring.
  RingReader ring;
  std::uint64_t owner = 0;

  const Word& sequence() const noexcept { return cell ? cell->sequence : ring.sequence(); }
};

/// What views of one wish have in common: where the value lies, and which life of the broker that is of. Another thread
/// of the process follows the broker; who reads looks at one word, without a lock.
///
/// @par Threads  Any.
class HX_API Opened {
 public:
  Opened() = default;
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;
  virtual ~Opened();

  /// Odd while there is a broker. Another number for each that comes or goes.
  std::uint64_t standing() const noexcept { return standing_.load(std::memory_order_acquire); }
  static bool isThere(std::uint64_t standing) noexcept { return (standing & 1U) != 0; }
  /// The latest place; stays readable also when the broker has gone.
  std::shared_ptr<const Place> place() const;
  /// Sleeps until the standing is another one.
  /// @param standing  What it was.
  /// @param limit     How long at most.
  void waitForChange(std::uint64_t standing, std::chrono::nanoseconds limit) const noexcept;

  /// A word that is this process's to write, and that the broker looks at when the value is written.
  /// @return Given back when nobody holds it. Means nothing any more when the standing changes.
  /// @throws std::runtime_error when the broker takes no more, or has gone.
  virtual std::shared_ptr<Word> newBell() = 0;

 protected:
  /// There is a broker, and it shows the value here.
  void connect(std::shared_ptr<const Place> place);
  /// It has gone. Wakes those who wait.
  void disconnect();

 private:
  Word standing_{0};
  mutable Mutex mutex_;
  std::shared_ptr<const Place> place_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX::view
