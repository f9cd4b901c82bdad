#pragma once

#include "pulse.h"

#include <hxerror/mutex.h>
#include <hxvalue/hxvalue.h>
#include <hxview/opened.h>
#include <hxview/ring.h>
#include <hxview/segment.h>
#include <hxview/shown.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HX {

/// Which keys are shown where, and for whom: gives places in shared memory to those who view, and takes them back. A
/// cell is given to another key only when nobody has it any more; a ring goes with its last user.
///
/// @par Threads  Any.
/// @par Locks    Held while the memory is told by what to show a key, which takes the memory's locks; nothing that
/// holds
///               one of those calls back here.
class Showroom {
 public:
  struct Limits {
    std::size_t bytes = std::size_t{256} << 20U;     ///< Of all segments.
    std::size_t ringBytes = std::size_t{64} << 20U;  ///< Of one ring.
    std::size_t viewsOfAViewer = 1024;
  };
  /// How a cell or a ring is used by one view.
  struct Lease {
    std::uint64_t number = 0;
    std::string key;
    std::string viewer;
    std::uint64_t owner = 0;  ///< Of the cell or ring.
    std::shared_ptr<const view::Segment> segment;
    std::int64_t segmentId = 0;
    std::size_t offset = 0;  ///< Of the cell.
    view::RingShape shape;   ///< Of the ring; no slots for a cell.
    std::chrono::milliseconds aliveWithin{100};
  };

  /// @param findHost  The memory; null when it has gone.
  /// @param limits    Beyond which nothing more is shown.
  Showroom(std::function<std::shared_ptr<view::Host>()> findHost, const Limits& limits);
  Showroom(const Showroom&) = delete;
  Showroom& operator=(const Showroom&) = delete;
  ~Showroom() { end(); }

  /// Shows a key for one more view.
  /// @param wish    What is wanted.
  /// @param viewer  Who wants it, for people.
  /// @return To be given back.
  /// @throws std::runtime_error naming the limit that it would exceed, or why there is no memory.
  Lease open(const view::Wish& wish, const std::string& viewer);
  void close(std::uint64_t lease) noexcept;
  /// Looks at a bell when the value of a lease is written.
  /// @throws std::runtime_error when there is no such lease.
  void addBell(std::uint64_t lease, const std::shared_ptr<view::Bell>& bell);
  void removeBell(std::uint64_t lease, const view::Bell* bell) noexcept;
  /// Shows nothing any more, and says so to those who view.
  void end() noexcept;
  /// {"views": a list of {key, viewer, bytes, depth, waiting}, "bytes", "limits"}
  HXValue report() const;

 private:
  struct Use {
    std::uint64_t owner = 0;
    std::size_t leases = 0;
    std::int64_t segmentId = 0;
    std::shared_ptr<const view::Segment> segment;
  };
  struct CellUse : Use {
    view::Cell* cell = nullptr;
    std::size_t offset = 0;
  };
  struct RingUse : Use {
    view::RingWriter writer;
  };
  struct BellUse {
    std::uint64_t lease;
    std::uint64_t owner;
    std::shared_ptr<view::Bell> bell;
  };
  struct Record {
    std::unique_ptr<CellUse> cell;
    std::vector<RingUse> rings;
    std::vector<BellUse> bells;
  };
  struct FreeCell {
    std::int64_t segmentId;
    std::shared_ptr<const view::Segment> segment;
    std::size_t offset;
  };

  CellUse takeCell() HX_REQUIRES(mutex_);
  RingUse makeRing(const view::RingShape& shape) HX_REQUIRES(mutex_);
  std::shared_ptr<const view::Segment> makeSegment(std::size_t bytes) HX_REQUIRES(mutex_);
  void requireRoom(const view::Wish& wish, const std::string& viewer) const HX_REQUIRES(mutex_);
  std::string largestUsers() const HX_REQUIRES(mutex_);
  void show(const std::string& key, Record& record, bool isCellNew, std::size_t ringsKnown) HX_REQUIRES(mutex_);
  void release(Lease lease) HX_REQUIRES(mutex_);
  void tidy(Record& record) HX_REQUIRES(mutex_);
  void setPulse() HX_REQUIRES(mutex_);

  const std::function<std::shared_ptr<view::Host>()> findHost_;
  const Limits limits_;
  const std::shared_ptr<Pulse> pulse_ = std::make_shared<Pulse>();

  mutable Mutex mutex_;
  std::map<std::string, Record> records_ HX_GUARDED_BY(mutex_);
  std::map<std::uint64_t, Lease> leases_ HX_GUARDED_BY(mutex_);
  std::vector<FreeCell> freeCells_ HX_GUARDED_BY(mutex_);
  std::uint64_t lastOwner_ HX_GUARDED_BY(mutex_) = 0;
  std::uint64_t lastLease_ HX_GUARDED_BY(mutex_) = 0;
  std::int64_t lastSegment_ HX_GUARDED_BY(mutex_) = 0;
  std::map<std::int64_t, std::weak_ptr<const view::Segment>> segments_ HX_GUARDED_BY(mutex_);
  bool ended_ HX_GUARDED_BY(mutex_) = false;
};

}  // namespace HX
