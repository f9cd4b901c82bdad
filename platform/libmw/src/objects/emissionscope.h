#pragma once

#include <cstdint>

namespace mw {

/// While one lives, the calling thread hands one list of arguments to the subscribers of a signal. What is worked out
/// for one of them may then serve the others.
class EmissionScope {
 public:
  /// @param isShared  Whether there are several of them.
  explicit EmissionScope(bool isShared) noexcept;
  EmissionScope(const EmissionScope&) = delete;
  EmissionScope& operator=(const EmissionScope&) = delete;
  ~EmissionScope();

  /// The number of the innermost one, which no other of the thread has had; 0 when it is not shared, or there is none.
  static std::uint64_t current() noexcept;

 private:
  const std::uint64_t outer_;
};

}  // namespace mw
