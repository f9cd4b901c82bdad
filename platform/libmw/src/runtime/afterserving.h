#pragma once

#include "threadlocal.h"

#include <hxerror/api.h>

#include <functional>
#include <utility>
#include <vector>

namespace mw::detail {

/// What a thread that serves connections runs at the end of the work that it is at, so that no other thread has to be
/// woken for it: at the end of this scope, and not from within what the work calls.
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
  /// @param function  Must not throw.
  void add(std::function<void()> function) { functions_.push_back(std::move(function)); }

 private:
  HX_THREAD_LOCAL static inline AfterServing* present_ = nullptr;
  AfterServing* const outer_;
  std::vector<std::function<void()>> functions_;
};

}  // namespace mw::detail
