#include "outbox.h"

#include <algorithm>
#include <utility>

namespace HX::fleet {

Account& Account::operator+=(const Account& other) {
  raised += other.raised;
  confirmed += other.confirmed;
  queued += other.queued;
  inFlight += other.inFlight;
  dropped += other.dropped;
  missed += other.missed;
  return *this;
}

Outbox::Outbox(Bounds bounds, std::uint64_t firstId) : bounds_(bounds), nextId_(firstId) {}

void Outbox::push(std::shared_ptr<Event> event) {
  event->id = nextId_++;
  bytes_ += event->payload.size();
  queue_.push_back(std::move(event));
  ++account_.raised;
  while (queue_.size() > bounds_.events || bytes_ > bounds_.bytes) drop();
}

void Outbox::addMissed(std::uint64_t count) {
  account_.raised += count;
  account_.missed += count;
}

void Outbox::drop() {
  const Event& oldest = *queue_.front();
  note({oldest.key->key, oldest.n, oldest.n, 1});
  ++account_.dropped;
  bytes_ -= oldest.payload.size();
  queue_.pop_front();
}

void Outbox::note(const Dropped& dropped) {
  const auto [known, isNew] = dropped_.emplace(dropped.key, dropped);
  if (isNew) return;
  Dropped& sum = known->second;
  sum.first = std::min(sum.first, dropped.first);
  sum.last = std::max(sum.last, dropped.last);
  sum.count += dropped.count;
}

std::vector<EventPointer> Outbox::take(std::size_t most) {
  const std::size_t room = bounds_.inFlight - std::min(bounds_.inFlight, inFlight_.size());
  const std::size_t count = std::min({most, room, queued()});
  std::vector<EventPointer> taken;
  taken.reserve(count);
  while (taken.size() < count) {
    const bool isAgain = !again_.empty();
    auto& source = isAgain ? again_ : queue_;
    if (!isAgain) bytes_ -= source.front()->payload.size();
    taken.push_back(std::move(source.front()));
    source.pop_front();
    inFlight_.push_back({taken.back()});
  }
  return taken;
}

bool Outbox::confirm(std::uint64_t id) {
  const auto found = std::ranges::lower_bound(inFlight_, id, {}, [](const InFlight& sent) { return sent->id; });
  if (found == inFlight_.end() || (*found)->id != id || found->isConfirmed) return false;
  found->isConfirmed = true;
  ++confirmedAmong_;
  ++account_.confirmed;
  while (!inFlight_.empty() && inFlight_.front().isConfirmed) {
    inFlight_.pop_front();
    --confirmedAmong_;
  }
  return true;
}

void Outbox::confirmAll() {
  account_.confirmed += inFlight();
  forgetFlight();
}

void Outbox::giveBack() {
  // What is in flight is older than what still waits to be sent again, if anything does.
  for (auto last = inFlight_.rbegin(); last != inFlight_.rend(); ++last) {
    if (!last->isConfirmed) again_.push_front(std::move(last->event));
  }
  forgetFlight();
}

void Outbox::forgetFlight() {
  inFlight_.clear();
  confirmedAmong_ = 0;
}

std::size_t Outbox::missOlder(std::deque<EventPointer>& events, TimePoint time) {
  std::size_t bytes = 0;
  while (!events.empty() && events.front()->raised < time) {
    bytes += events.front()->payload.size();
    events.pop_front();
  }
  return bytes;
}

void Outbox::missOlder(TimePoint time) {
  const std::size_t before = queued();
  missOlder(again_, time);
  bytes_ -= missOlder(queue_, time);
  account_.missed += before - queued();
}

Account Outbox::account() const {
  Account account = account_;
  account.queued = queued();
  account.inFlight = inFlight();
  // The refusal may be known before what was sent counts as arrived.
  const std::uint64_t refused = std::min(refused_, account.confirmed);
  account.confirmed -= refused;
  account.missed += refused;
  return account;
}

std::vector<Dropped> Outbox::takeDropped() {
  std::vector<Dropped> all;
  all.reserve(dropped_.size());
  for (auto& [key, dropped] : dropped_) all.push_back(std::move(dropped));
  dropped_.clear();
  return all;
}

void Outbox::returnDropped(const std::vector<Dropped>& told) {
  for (const Dropped& dropped : told) note(dropped);
}

}  // namespace HX::fleet
