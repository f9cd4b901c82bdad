#include "race_point.h"

#include <libmw/detail/racepoint.h>

#include <chrono>
#include <utility>

namespace {

// Who waits for a lock does not end: longer than a call takes that waits for nothing.
constexpr std::chrono::milliseconds kSeenToWait{30};

std::atomic<kit::AtRacePoint*> present{nullptr};

}  // namespace

extern "C" void korvoRacePoint(const char* place) {
  if (auto* const point = present.load()) point->reach(place);
}

namespace kit {

AtRacePoint::AtRacePoint(std::string place, std::function<void()> other)
    : place_(std::move(place)), other_(std::move(other)) {
  present = this;
}

AtRacePoint::~AtRacePoint() {
  present = nullptr;
  join();
}

void AtRacePoint::reach(const char* place) {
  if (place != place_ || reached_.exchange(true)) return;
  ended_ = std::async(std::launch::async, other_);
  ended_.wait_for(kSeenToWait);
}

bool AtRacePoint::join() {
  if (ended_.valid()) ended_.get();
  return reached_;
}

}  // namespace kit
