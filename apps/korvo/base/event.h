#pragma once

#include <chrono>
#include <initializer_list>

namespace korvo {

/// Waits until one of `files` can be read, has ended or is broken.
///
/// @param timeout  Negative waits without limit.
/// @return The index of the first of them that can, -1 when the time has passed.
int waitReadable(std::initializer_list<int> files, std::chrono::milliseconds timeout = std::chrono::milliseconds(-1));

/// Something that happens, as a file: it can be waited for together with others.
///
/// @par Threads  Any number of threads may set it and wait for it.
class Event {
 public:
  /// @throws std::system_error when the process is out of files.
  Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  ~Event();

  void set() noexcept;
  /// Makes it as if it had never been set.
  void clear() noexcept;
  /// Readable while set.
  int file() const { return file_; }
  /// @return Whether it was set in time.
  bool wait(std::chrono::milliseconds timeout) const { return waitReadable({file_}, timeout) == 0; }

 private:
  int file_;
};

}  // namespace korvo
