#pragma once

#include <chrono>
#include <cstdlib>

namespace kit {

/// How long a stress test goes on: KORVO_STRESS_SECONDS, or 3 seconds.
inline std::chrono::seconds stressDuration() {
  const char* const seconds = std::getenv("KORVO_STRESS_SECONDS");
  return std::chrono::seconds(seconds ? std::atoi(seconds) : 3);
}

}  // namespace kit
