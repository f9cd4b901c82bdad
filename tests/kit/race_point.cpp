#include "race_point.h"

#include <libmw/detail/racepoint.h>

#include <chrono>
#include <fstream>
#include <unistd.h>
#include <utility>

namespace {

std::atomic<kit::AtRacePoint*> present{nullptr};

/// As the system sees it, so that a machine that is busy with something else makes no difference.
bool isAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string line;
  std::getline(file, line);
  const std::size_t name = line.rfind(") ");
  return name != std::string::npos && line[name + 2] == 'S';
}

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
  ended_ = std::async(std::launch::async, [this] {
    otherThread_ = ::gettid();
    other_();
  });
  awaitOther();
}

void AtRacePoint::awaitOther() const {
  constexpr int kLooks =
      10;  // A thread that falls asleep for a moment, and not because of the first one, is awake in one.
  for (int asleep = 0; asleep < kLooks;) {
    if (ended_.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready) return;
    const pid_t thread = otherThread_;
    asleep = thread != 0 && isAsleep(thread) ? asleep + 1 : 0;
  }
}

bool AtRacePoint::join() {
  if (ended_.valid()) ended_.get();
  return reached_;
}

}  // namespace kit
