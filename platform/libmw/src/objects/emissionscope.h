#pragma once

#include <libmw/anyvalue.h>

#include <cstdint>

namespace mw {

/// While one lives, the calling thread hands one list of arguments to the subscribers of a signal. What is worked out
/// for one of them may then serve the others.
class EmissionScope {
 public:
  /// @param emitted   The list, which outlives the scope.
  /// @param isShared  Whether there are several subscribers.
  EmissionScope(GenericFunctionParameters emitted, bool isShared) noexcept;
  EmissionScope(const EmissionScope&) = delete;
  EmissionScope& operator=(const EmissionScope&) = delete;
  ~EmissionScope();

  /// The number of the innermost one, which no other of the thread has had; 0 when it is not shared, when `emitted` is
  /// not its list, and when there is none.
  static std::uint64_t of(GenericFunctionParameters emitted) noexcept;

 private:
  const GenericFunctionParameters outerList_;
  const std::uint64_t outerNumber_;
};

}  // namespace mw
