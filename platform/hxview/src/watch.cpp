#include <hxview/futex.h>
#include <hxview/watch.h>

#include <array>
#include <stdexcept>
#include <string>

namespace HX::view {

void failNoValue(State state) {
  static constexpr std::array<const char*, 7> kTexts{
      "the value is present",
      "the memory has no such key",
      "the value is of another type than the view",
      "the value is larger than the capacity of the view",
      "the value is written through an address, which no view can follow",
      "the broker has gone",
      "the value changed each time that it was looked at"};
  throw std::runtime_error(std::string("no value in the view: ") + kTexts[static_cast<std::size_t>(state)]);
}

std::chrono::nanoseconds since(std::uint64_t written) noexcept {
  return std::chrono::nanoseconds(std::max<std::int64_t>(static_cast<std::int64_t>(monotonicNow() - written), 0));
}

void standBack() noexcept {
  // Between two processors a line takes some 120 ns each way. Longer, and the reader pays more for it than the writer
  // saves.
  constexpr std::uint64_t kNanoseconds = 300;
  const std::uint64_t begin = monotonicNow();
  while (monotonicNow() - begin < kNanoseconds) continue;
}

Watch::Watch(std::shared_ptr<Opened> opened)
    : opened_(std::move(opened)), standing_(opened_->standing()), place_(opened_->place()) {}

Watch::Watch(const Watch& other) : opened_(other.opened_), standing_(other.standing_), place_(other.place_) {}

Watch& Watch::operator=(const Watch& other) {
  Watch copy(other);
  return *this = std::move(copy);
}

bool Watch::move() noexcept {
  standing_ = opened_->standing();
  place_ = opened_->place();
  return Opened::isThere(standing_);
}

bool Watch::wait(std::uint64_t revision, std::chrono::milliseconds limit) {
  if (hasMoved()) return true;
  if (!isThere()) {
    opened_->waitForChange(standing_, limit);
    return hasMoved();
  }
  const Word& sequence = place_->sequence();
  if (sequence.load(std::memory_order_acquire) > revision) return true;
  if (!bell_ || bellStanding_ != standing_) {
    try {
      bell_ = opened_->newBell();
    } catch (const std::exception&) {
      // Perhaps the broker has gone just now, and the word of it is still on its way.
      opened_->waitForChange(standing_, std::min<std::chrono::nanoseconds>(limit, std::chrono::seconds(1)));
      if (hasMoved()) return true;
      throw;
    }
    bellStanding_ = standing_;
  }
  const auto until = std::chrono::steady_clock::now() + limit;
  bool isNews = false;
  while (true) {
    // Said before the look: the writer publishes before it looks at the bell. One of the two sees the other.
    bell_->exchange(revision + 1, std::memory_order_seq_cst);
    const std::uint64_t latest = sequence.load(std::memory_order_seq_cst);
    const auto rest = until - std::chrono::steady_clock::now();
    isNews = latest > revision || hasMoved();
    if (isNews || !isThere() || rest <= rest.zero()) break;
    sleepWhile(sequence, latest, rest);
  }
  bell_->store(0, std::memory_order_relaxed);
  return isNews;
}

}  // namespace HX::view
