#pragma once

#include "threadlocal.h"

#include <hxerror/api.h>

#include <functional>
#include <utility>
#include <vector>

namespace mw::detail {

/// What a thread that serves connections runs at the end of the work that it is at, so that no other thread has to be
/// woken for it: at the end of this scope, and not from within what the work calls. Whoever gives the thread more to do
/// before that, which may last, has it passed on.
class HX_API AfterServing {
 public:
  AfterServing() noexcept : outer_(std::exchange(present_, this)) {}
  AfterServing(const AfterServing&) = delete;
  AfterServing& operator=(const AfterServing&) = delete;
  ~AfterServing() {
    present_ = outer_;
    for (const auto& function : functions_) function();
  }

  /// Null for a thread that serves nobody.
  static AfterServing* present() noexcept { return present_; }
  bool isEmpty() const noexcept { return functions_.empty(); }
  /// Whether it takes functions: after `passOn` it does not, since more may come behind whatever is next.
  bool isOpen() const noexcept { return !isPassedOn_; }
  /// @param function  Must not throw.
  void add(std::function<void()> function) { functions_.push_back(std::move(function)); }

  /// Has what is left to the calling thread, if there is anything, run by others, on the default loop.
  static void passOn() noexcept {
    if (present_ && !present_->functions_.empty()) present_->passOnAll();
  }

 private:
  HX_THREAD_LOCAL static inline AfterServing* present_ = nullptr;
  void passOnAll() noexcept;

  AfterServing* const outer_;
  bool isPassedOn_ = false;
  std::vector<std::function<void()>> functions_;
};

}  // namespace mw::detail
