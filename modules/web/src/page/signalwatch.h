#pragma once

#include <hxerror/mutex.h>
#include <hxvalue/hxvalue.h>
#include <libmw/eventloop.h>
#include <libmw/genericobject.h>
#include <libmw/signal.h>
#include <libmw/trackable.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace HX::web {

/// What a signal has emitted since somebody looked last: the latest of it, and how many there were.
///
/// @par Threads  Any.
class SignalWatch : public std::enable_shared_from_this<SignalWatch> {
 public:
  static constexpr std::size_t kMost = 50;

  struct Emission {
    HXValue arguments;  ///< A list; what is no value is named by its type.
    double time = 0;    ///< Milliseconds since the epoch.
  };

  /// Connects, and waits until later emissions will arrive.
  /// @throws std::runtime_error when there is no such signal.
  void begin(const mw::AnyObject& object, const std::string& signal);
  /// @param count  How many there were since the last time, those that are not given included.
  std::vector<Emission> take(std::uint64_t& count);
  /// Hears nothing any more. Disconnecting may wait, and is left to the loop.
  void end(mw::EventLoop& loop);

 private:
  void note(Emission emission);

  mw::Lifetime lifetime_;
  Mutex mutex_;  // A leaf.
  mw::AnyObject object_ HX_GUARDED_BY(mutex_);
  mw::SignalLink link_ HX_GUARDED_BY(mutex_) = 0;
  std::deque<Emission> emissions_ HX_GUARDED_BY(mutex_);
  std::uint64_t count_ HX_GUARDED_BY(mutex_) = 0;
  bool isOver_ HX_GUARDED_BY(mutex_) = false;
};

}  // namespace HX::web
