#pragma once

#include <hxerror/api.h>
#include <libmw/log.h>

#include <memory>
#include <vector>

namespace mw {
namespace detail {

/// For a thread that is about to take a lock under which it runs what is foreign. What it logs while one lives reaches
/// the sinks in its order from the event loop, and what has not by the end of the scope then and there. A sink, which
/// is foreign as well, may so wait for whoever waits for the lock. Standard error has each line at once. What the sinks
/// are so slow to take that ten thousand records wait is left out, and one record says how many.
///
///     const mw::detail::LogDeferral deferral;  // Ends after the lock.
///     const HX::MutexLock lock(mutex_);
///
/// Of scopes inside one another the outermost counts.
///
/// @par Threads  For the thread that makes it.
class HX_API LogDeferral {
 public:
  LogDeferral() noexcept;
  LogDeferral(const LogDeferral&) = delete;
  LogDeferral& operator=(const LogDeferral&) = delete;
  /// The sinks have all that was logged when this returns.
  ~LogDeferral();

  /// Null where the calling thread's records go to the sinks at once.
  static LogDeferral* present() noexcept;
  /// @param record  Copied.
  /// @param causes  Sinks that it is not for.
  void add(const LogRecord& record, std::vector<log::SinkId> causes);

 private:
  class Records;

  const bool isOutermost_;
  std::shared_ptr<Records> records_;  // made with the first
};

}  // namespace detail
}  // namespace mw
