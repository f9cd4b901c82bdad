#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <sys/types.h>

namespace kit {

/// Has another thread come between two steps: the first thread that reaches the place waits there until `other`, on a
/// thread of its own, has ended or is seen to wait. `other` itself passes every place. One at a time; the program
/// compiles race_point.cpp in.
class AtRacePoint {
 public:
  /// @param place  As the code under test names it.
  /// @param other  What the other thread does. It may wait for what the first one holds, and then ends after it.
  AtRacePoint(std::string place, std::function<void()> other);
  AtRacePoint(const AtRacePoint&) = delete;
  AtRacePoint& operator=(const AtRacePoint&) = delete;
  ~AtRacePoint();

  /// Waits until `other` has ended. @return False when nobody came to the place.
  bool join();

  /// Called by the code under test.
  void reach(const char* place);

 private:
  void awaitOther() const;

  const std::string place_;
  const std::function<void()> other_;
  std::atomic<bool> reached_{false};
  std::atomic<pid_t> otherThread_{0};  // Once it runs.
  std::future<void> ended_;
};

}  // namespace kit
