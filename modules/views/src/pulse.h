#pragma once

#include <hxerror/mutex.h>
#include <hxview/segment.h>
#include <hxview/shown.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>
#include <vector>

namespace HX {

/// A thread that says in every segment that this process runs, as often as the sharpest viewer wants to know, and that
/// wakes those who wait where they are several: each costs the writer microseconds otherwise. While nobody views it
/// sleeps.
///
/// @par Threads  Any.
class Pulse : public view::Waker {
 public:
  using Segments = std::vector<std::shared_ptr<const view::Segment>>;

  Pulse() = default;
  Pulse(const Pulse&) = delete;
  Pulse& operator=(const Pulse&) = delete;
  ~Pulse() override;

  /// @param segments  Where to say it; none for no beat.
  /// @param interval  How often.
  /// @throws std::system_error when there is no thread to be had; as before then.
  void beatIn(Segments segments, std::chrono::milliseconds interval);
  void wakeLater(std::shared_ptr<const view::Shown> shown) noexcept override;
  /// Ends the thread.
  void stop() noexcept;

 private:
  void run();
  static void beat(const Segments& segments) noexcept;

  Mutex mutex_;
  std::condition_variable changed_;
  Segments segments_ HX_GUARDED_BY(mutex_);
  std::chrono::milliseconds interval_ HX_GUARDED_BY(mutex_){0};
  std::vector<std::shared_ptr<const view::Shown>> due_ HX_GUARDED_BY(mutex_);
  bool stopped_ HX_GUARDED_BY(mutex_) = false;
  std::thread thread_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX
