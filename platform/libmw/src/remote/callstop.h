#pragma once

#include <hxerror/mutex.h>

#include <stop_token>
#include <utility>

namespace mw::remote {

/// Whether the caller of a call that is served still wants its result.
///
/// @par Threads  Any.
class CallStop {
 public:
  /// It does not: whoever has taken the token is told, on the calling thread.
  void request() {
    std::stop_source source = requested();  // Told with nothing locked.
    if (source.stop_possible()) source.request_stop();
  }
  bool isRequested() const {
    const HX::MutexLock lock(mutex_);
    return isRequested_;
  }

  /// Made when it is asked for: few methods do.
  std::stop_token token() {
    const HX::MutexLock lock(mutex_);
    if (!source_.stop_possible()) {
      source_ = std::stop_source();
      if (isRequested_) source_.request_stop();  // Nobody is told yet, so that nothing foreign runs here.
    }
    return source_.get_token();
  }

 private:
  std::stop_source requested() {
    const HX::MutexLock lock(mutex_);
    isRequested_ = true;
    return source_;
  }

  mutable HX::Mutex mutex_;
  bool isRequested_ HX_GUARDED_BY(mutex_) = false;
  std::stop_source source_ HX_GUARDED_BY(mutex_){std::nostopstate};
};

}  // namespace mw::remote
