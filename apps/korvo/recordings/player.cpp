#include "player.h"

#include <algorithm>

namespace korvo {

using HX::recording::Entry;
using HX::recording::TimePoint;
using namespace std::chrono_literals;

namespace {

constexpr auto kLongestPause = 24h;  // More is a clock that was set.

}  // namespace

std::string PlayOptions::nameOf(const std::string& key) const {
  for (const auto& [before, after] : maps) {
    if (key.starts_with(before)) return after + key.substr(before.size());
  }
  return key;
}

bool PlayOptions::wants(const std::string& key) const {
  // The memory raises these itself when others are written.
  return keys.wantsKey(key) && !key.starts_with("HXMemory/");
}

Player::Player(HX::recording::Reader& reader, PlayOptions options, Use use, Wait wait, Progress progress)
    : reader_(reader),
      options_(std::move(options)),
      use_(std::move(use)),
      wait_(std::move(wait)),
      progress_(std::move(progress)) {}

bool Player::play() {
  TimePoint begin = options_.from;
  while (true) {
    switch (playFrom(begin)) {
      case Outcome::Done:
        return true;
      case Outcome::Ended:
        return false;
      default:
        begin = *std::exchange(sought_, std::nullopt);
        if (options_.from <= options_.to) begin = std::clamp(begin, options_.from, options_.to);
    }
  }
}

Player::Outcome Player::playFrom(TimePoint begin) {
  now_ = begin;
  due_ = std::chrono::steady_clock::now();
  for (auto& [key, entry] : tableAt(reader_, begin, options_.keys)) {
    Entry state = entry;
    state.kind = Entry::Kind::State;
    if (options_.wants(key)) tell(state);
  }
  isAfterGap_ = hasBegun_ = false;
  // By their order, not by their times: a clock that was set back makes times come twice.
  const std::size_t end = lastChunk(options_.to) + 1;
  const std::size_t first = std::min(lastChunk(begin), end - 1);
  const auto isOver = [&] { return isEnded_ || sought_; };
  const auto noteGap = [&](const Entry& entry) { return !(isAfterGap_ = entry.kind == Entry::Kind::Gap); };
  reader_.forEach(noteGap, 0, first);
  reader_.forEach([&](const Entry& entry) { return play(entry, begin); }, first, end - 1);
  if (!isOver()) {
    reader_.forEach([&](const Entry& entry) { return entry.logged > options_.to || play(entry, begin); }, end - 1, end);
  }
  if (isEnded_) return Outcome::Ended;
  return sought_ ? Outcome::Sought : Outcome::Done;
}

/// @return The chunk that has the last entry up to a time.
std::size_t Player::lastChunk(TimePoint time) const { return std::max<std::size_t>(chunksUntil(reader_, time), 1) - 1; }

bool Player::play(const Entry& entry, TimePoint begin) {
  isAfterGap_ = isAfterGap_ || entry.kind == Entry::Kind::Gap;
  hasBegun_ = hasBegun_ || entry.logged > begin;
  if (!hasBegun_ || entry.kind == Entry::Kind::Gap || !options_.wants(entry.key)) return true;
  // Pieces of a black box begin with what is known already.
  if (entry.kind == Entry::Kind::State && !isAfterGap_) return true;
  if (!await(entry)) return false;
  tell(entry);
  return true;
}

bool Player::await(const Entry& entry) {
  const auto pause = std::clamp<std::chrono::nanoseconds>(entry.logged - now_, 0ns, kLongestPause);
  due_ += std::chrono::nanoseconds(static_cast<std::int64_t>(static_cast<double>(pause.count()) / options_.rate));
  now_ = entry.logged;
  while (true) {
    const auto left = due_ - std::chrono::steady_clock::now();
    // Without a pause nobody is asked: that would cost more than the change.
    if (!isPaused_ && left < 1ms) return true;
    progress_(now_, isPaused_);
    if (!obey(wait_(isPaused_ ? std::chrono::nanoseconds(-1) : left))) return false;
    if (std::exchange(steps_, false)) return true;
  }
}

/// @return False when it does not go on from here.
bool Player::obey(Wish wish) {
  switch (wish.kind) {
    case Wish::Kind::End:
      isEnded_ = true;
      return false;
    case Wish::Kind::Seek:
      sought_ = now_ + wish.distance;
      return false;
    case Wish::Kind::Step:
      isPaused_ = steps_ = true;
      return true;
    case Wish::Kind::Pause:
      isPaused_ = !isPaused_;
      due_ = std::chrono::steady_clock::now();
      return true;
    default:
      return true;
  }
}

void Player::tell(const Entry& entry) {
  use_(entry, options_.nameOf(entry.key));
  ++told_;
}

}  // namespace korvo
