#pragma once

#include <hxerror/api.h>

#include <cstdint>

/// The clock by which ages are told, of all processes of a machine: it does not jump when somebody sets the time.
namespace HX::view {

/// Nanoseconds of the monotonic clock. @return The time.
HX_API std::uint64_t monotonicNow() noexcept;
/// The same, up to a tick (4 or 10 ms) behind, for a quarter of the price. @return The time.
HX_API std::uint64_t monotonicRecently() noexcept;
/// The same for who has asked the system's clock already, and would have to ask a second one: by how far the two are
/// apart. When the system's clock was set, that is noticed here, and the monotonic clock is asked.
/// @param systemNanoseconds  Now, since 1970.
/// @return The time.
HX_API std::uint64_t monotonicAt(std::int64_t systemNanoseconds) noexcept;

/// The same for a time that has passed; nobody knows whether the system's clock was set since.
/// @param systemNanoseconds  Then, since 1970.
/// @return The time; the beginning or now for one beyond these.
HX_API std::uint64_t monotonicThen(std::int64_t systemNanoseconds) noexcept;

}  // namespace HX::view
