#pragma once

#include "showroom.h"

#include <hxerror/mutex.h>
#include <hxvalue/hxvalue.h>
#include <libmw/session.h>

#include <cstdint>
#include <map>
#include <memory>

namespace HX {

/// What `HXViews.open` gives: a place in shared memory, for as long as somebody holds this. It ends with the viewer's
/// connection, too.
///
/// @par Threads  Any.
class ViewLease {
 public:
  /// @param room     Where the lease is of.
  /// @param session  By which files are handed over.
  /// @param lease    Which.
  /// @param life     Of the service, a number of its own.
  ViewLease(std::shared_ptr<Showroom> room, std::weak_ptr<mw::Session> session, Showroom::Lease lease,
            std::int64_t life);
  ViewLease(const ViewLease&) = delete;
  ViewLease& operator=(const ViewLease&) = delete;
  ~ViewLease();

  /// Describes its members to the middleware.
  static void describe();

  HXValue place() const;
  HXValue::Binary ticket() const;

 private:
  const std::shared_ptr<Showroom> room_;
  const std::weak_ptr<mw::Session> session_;
  const Showroom::Lease lease_;
  const std::int64_t life_;
};

/// What `HXViews.bells` gives: a page with the bells of a process, which it writes and this one reads.
///
/// @par Threads  Any.
class BellPage {
 public:
  static constexpr std::size_t kSize = 4096;

  /// @param room  Whose leases ring.
  /// @param page  As it was handed over.
  BellPage(std::shared_ptr<Showroom> room, std::shared_ptr<const view::Mapping> page);
  BellPage(const BellPage&) = delete;
  BellPage& operator=(const BellPage&) = delete;
  ~BellPage();

  static void describe();

  /// @throws std::runtime_error when there is no such lease or place.
  void add(std::int64_t lease, std::int64_t index);
  void remove(std::int64_t index);

 private:
  struct Added {
    std::uint64_t lease;
    std::shared_ptr<view::Bell> bell;
  };
  const std::shared_ptr<Showroom> room_;
  const std::shared_ptr<const view::Mapping> page_;
  Mutex mutex_;
  std::map<std::int64_t, Added> bells_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX
