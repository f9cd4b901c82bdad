#pragma once

#include <atomic>
#include <future>

namespace kit {

/// Lets a function that another thread runs stay where it calls `sit`, once, until the test releases it.
class Sitter {
 public:
  void sit() {
    entered_.set_value();
    release_.get_future().wait();
    left = true;
  }
  void awaitEntry() { entered_.get_future().wait(); }
  void release() { release_.set_value(); }
  /// For another one to sit, when the first has left.
  void reset() {
    entered_ = {};
    release_ = {};
  }

  std::atomic<bool> left{false};

 private:
  std::promise<void> entered_;
  std::promise<void> release_;
};

}  // namespace kit
