#include "frequency.h"

#include <algorithm>
#include <cmath>

namespace korvo {

void Frequency::see(mw::SystemTimePoint at) {
  const std::lock_guard lock(mutex_);
  seen_.push_back(seen_.empty() ? at : std::max(at, seen_.back()));
}

Frequency::Summary Frequency::summary(mw::SystemTimePoint now) {
  const std::lock_guard lock(mutex_);
  while (!seen_.empty() && seen_.front() < now - kSpan) seen_.pop_front();
  Summary summary{.count = seen_.size()};
  if (seen_.size() < 2) return summary;
  const auto seconds = [](std::chrono::nanoseconds duration) {
    return std::chrono::duration<double>(duration).count();
  };
  const double gaps = static_cast<double>(seen_.size() - 1);
  const double mean = seconds(seen_.back() - seen_.front()) / gaps;
  summary.least = seconds(kSpan);
  double squares = 0;
  for (std::size_t i = 1; i < seen_.size(); ++i) {
    const double gap = seconds(seen_[i] - seen_[i - 1]);
    summary.least = std::min(summary.least, gap);
    summary.most = std::max(summary.most, gap);
    squares += (gap - mean) * (gap - mean);
  }
  summary.deviation = std::sqrt(squares / gaps);
  // A silence that is longer than any gap counts as one, so that the end of it all shows.
  const bool isOver = seconds(now - seen_.back()) > 2 * summary.most;
  const double span = seconds((isOver ? now : seen_.back()) - seen_.front());
  summary.perSecond = span > 0 ? gaps / span : 0;
  return summary;
}

}  // namespace korvo
