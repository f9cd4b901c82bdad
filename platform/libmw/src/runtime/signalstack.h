#pragma once

#include <cstddef>
#include <memory>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): sigaltstack is POSIX.

namespace mw::detail {

/// While one lives, handlers of the calling thread that ask for it (SA_ONSTACK) have a stack of their own: a thread
/// that has outgrown its own can say so.
class SignalStack {
 public:
  SignalStack() : bytes_(std::make_unique_for_overwrite<std::byte[]>(kSize)) {
    stack_t own{};
    own.ss_sp = bytes_.get();
    own.ss_size = kSize;
    ::sigaltstack(&own, &before_);
  }
  SignalStack(const SignalStack&) = delete;
  SignalStack& operator=(const SignalStack&) = delete;
  /// Back to what a sanitizer may have set, which it takes back itself.
  ~SignalStack() { ::sigaltstack(&before_, nullptr); }

 private:
  static constexpr std::size_t kSize = std::size_t{64} << 10;  // Touched by nobody as a rule.

  std::unique_ptr<std::byte[]> bytes_;
  stack_t before_{};
};

}  // namespace mw::detail
