#include <hxtiming/stopwatch.h>

#include <cstdint>

namespace HX {

void Stopwatch::start() noexcept { started_ = Clock::now(); }

void Stopwatch::stop() noexcept { stopped_ = Clock::now(); }

int Stopwatch::diffNs() const noexcept {
  const std::chrono::nanoseconds elapsed = stopped_ - started_ + offset_;
  return static_cast<std::int32_t>(elapsed.count());
}

}  // namespace HX
