#pragma once

#include <cstdint>

namespace HX::journal {

// Bits of a line's flags.
constexpr std::int64_t kState = 1;
constexpr std::int64_t kChangedKind = 2;
constexpr std::int64_t kByAddress = 4;
constexpr std::int64_t kUnchanged = 8;
constexpr std::int64_t kWithheld = 16;
constexpr std::int64_t kFlags = 31;

}  // namespace HX::journal
