#include "outgoing.h"

#include "names.h"

#include <libmw/detail/logdeferral.h>
#include <libmw/log.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <memory>
#include <utility>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

using journal::What;

const char* const kCategory = "hxfleet";
// What the memory keeps a key as.
constexpr std::uint8_t kEvent = 3;
constexpr std::uint8_t kMicroEvent = 4;
constexpr std::size_t kMostReturned = 8192;  // Events that are done with.
constexpr std::size_t kReused = 1024;        // Bytes of room for a payload; larger ones are seldom, and not kept.

bool isEvent(std::uint8_t kind) { return kind == kEvent || kind == kMicroEvent; }

const char* kindOf(std::uint8_t kind) { return kind == kMicroEvent ? "MicroEvent" : kind == kEvent ? "Event" : "Data"; }

/// Others than those of an earlier start of the module, which the store may know.
std::uint64_t firstId() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(mw::systemNow().time_since_epoch()).count());
}

}  // namespace

bool Selection::exports(std::string_view key) const {
  return exported.match(key) && !hidden.match(key) && !others.match(key);
}

Outgoing::Outgoing(Selection selection, Bounds bounds)
    : bounds_(bounds),
      selection_(std::move(selection)),
      live_(bounds.events, firstId()),
      kept_(bounds.events, firstId()),
      values_(bounds.values) {}

bool Outgoing::exports(std::string_view key) {
  const MutexLock lock(feedMutex_);
  return selection_.exports(key);
}

void Outgoing::addOther(const std::string& robot) {
  const MutexLock lock(feedMutex_);
  selection_.others.add(Pattern(robot + "/**"));
}

void Outgoing::begin(std::string run) {
  const MutexLock lock(feedMutex_);
  run_ = std::move(run);
}

Outgoing::Key& Outgoing::keyOf(std::string_view name) {
  const auto known = keys_.find(name);
  if (known != keys_.end()) return known->second;
  Key key;
  if (selection_.exports(name)) {
    std::string subject = toSubject(name);
    if (subject.size() <= kLongestSubject) {
      key.name = std::make_shared<const KeyName>(KeyName{std::string(name), std::move(subject)});
      key.isKept = selection_.kept.match(name) && !selection_.live.match(name);
    } else if (!std::exchange(toldLong_, true)) {
      mw::log::warning(kCategory, "export",
                       fmt::format("the name of {}… is too long for the fleet", name.substr(0, 60)));
    }
  }
  return keys_.emplace(std::string(name), std::move(key)).first->second;
}

void Outgoing::tellStranger(const journal::Change& change) {
  if (toldStranger_ || change.author == "HXFleet" || change.author.empty() || !selection_.others.match(change.key))
    return;
  toldStranger_ = true;
  mw::log::warning(
      kCategory, "follow",
      fmt::format("{} writes {}, which is another robot's: nobody there hears of it", change.author, change.key));
}

void Outgoing::change(const journal::Change& change) {
  const mw::detail::LogDeferral deferral;  // Whoever listens to the log may ask for the account.
  const MutexLock lock(feedMutex_);
  tellStranger(change);
  Key& key = keyOf(change.key);
  markSeen(change.key);
  if (change.isState) {
    state(key, change);
  } else if (change.what == What::Removed) {
    key.nth = 0;
    if (!key.name) return;
    const MutexLock handOver(mutex_);
    values_.remove(key.name->key);
    wake();
  } else if (change.what == What::Raised || change.what == What::RaisedMicro) {
    raise(key, change);
  } else if (change.what == What::Stored) {
    key.isEvent = false;
    key.nth = change.nth;
    setValue(key, change);
  } else {
    key.nth = std::max(key.nth, change.nth);
  }
}

/// What a snapshot says. Raises between it and what was told before are known by their number alone.
void Outgoing::state(Key& key, const journal::Change& change) {
  key.isEvent = isEvent(change.kind);
  const std::uint32_t leftOut = change.nth >= key.nth ? change.nth - key.nth : change.nth;
  key.nth = change.nth;
  if (key.isEvent) {
    key.n += leftOut;
    if (knowsRaises_ && key.name) {
      const MutexLock handOver(mutex_);
      (key.isKept ? kept_ : live_).addMissed(leftOut);
    }
  }
  setValue(key, change);
}

void Outgoing::raise(Key& key, const journal::Change& change) {
  key.isEvent = true;
  key.nth = change.nth;
  ++key.n;
  if (!key.name) return;
  record(key, change);
  auto event = blankEvent();
  event->key = key.name.get();
  event->n = key.n;
  writePayload(record_, event->payload);
  event->raised = Clock::now();
  const MutexLock handOver(mutex_);
  (key.isKept ? kept_ : live_).push(std::move(event));
  mirror(key, change);
  wake();
}

std::shared_ptr<Event> Outgoing::blankEvent() {
  if (blanks_.empty()) {
    const MutexLock handOver(mutex_);
    blanks_.swap(returned_);
  }
  if (blanks_.empty()) return std::make_shared<Event>();
  auto event = std::const_pointer_cast<Event>(std::move(blanks_.back()));
  blanks_.pop_back();
  return event;
}

void Outgoing::record(const Key& key, const journal::Change& change) {
  record_.key = key.name->key;
  record_.value = change.withheld ? HXValue::map({{"tooLarge", true}}) : change.value;
  record_.kind = kindOf(change.kind);
  record_.n = key.n;
  record_.run = run_;
  record_.time = change.time;
}

void Outgoing::setValue(const Key& key, const journal::Change& change) {
  if (!key.name) return;
  record(key, change);
  const MutexLock handOver(mutex_);
  mirror(key, change);
  wake();
}

/// @pre `record_` is that of the change.
void Outgoing::mirror(const Key& key, const journal::Change& change) {
  if (!change.value.isValid() && !change.withheld) return;
  if (values_.set(key.name, std::move(record_)) || std::exchange(toldTooMany_, true)) return;
  mw::log::warning(kCategory, "mirror",
                   fmt::format("{} keys are mirrored, and no more: {} is the first that is not", bounds_.values.keys,
                               key.name->key));
}

void Outgoing::gap(const journal::Gap& gap) {
  const MutexLock lock(feedMutex_);
  unseen_.clear();
  for (const auto& [name, key] : keys_) unseen_.insert(name);
  const std::string run = fmt::format("{:x}", gap.to.epoch);
  if (run == run_) return;
  // The memory has begun anew, and counts anew.
  run_ = run;
  knowsRaises_ = false;
  for (auto& [name, key] : keys_) key.n = key.nth = 0;
}

void Outgoing::unchanged(std::string_view key) {
  const MutexLock lock(feedMutex_);
  markSeen(key);
}

void Outgoing::markSeen(std::string_view key) {
  const auto unseen = unseen_.find(key);
  if (unseen != unseen_.end()) unseen_.erase(unseen);
}

void Outgoing::complete() {
  const MutexLock lock(feedMutex_);
  knowsRaises_ = true;
  for (const std::string& gone : unseen_) keys_[gone].nth = 0;
  const MutexLock handOver(mutex_);
  for (const std::string& gone : unseen_) values_.remove(gone);
  unseen_.clear();
  wake();
}

void Outgoing::wake() {
  hasNew_ = true;
  if (isIdle_) changed_.notify_all();
}

Outgoing::Work Outgoing::take(std::size_t live, std::size_t stored) {
  const auto now = Clock::now();
  const MutexLock lock(mutex_);
  hasNew_ = false;
  live_.missOlder(now - bounds_.oldest);
  Work work;
  work.live = live_.take(live);
  work.kept = kept_.take(stored);
  if (stored > 1 || work.kept.empty()) work.values = values_.take(now, stored);
  return work;
}

void Outgoing::await(std::chrono::milliseconds limit, bool values, const std::stop_token& stop) {
  MutexLock lock(mutex_);
  auto until = Clock::now() + limit;
  const auto due = values ? values_.nextDue() : std::nullopt;
  if (due) until = std::min(until, *due);
  isIdle_ = true;
  changed_.wait_until(lock.native(), stop, until, [&]() HX_REQUIRES(mutex_) { return hasNew_; });
  isIdle_ = false;
}

void Outgoing::confirmLive() {
  const MutexLock lock(mutex_);
  live_.confirmAll();
}

void Outgoing::reuse(std::vector<EventPointer> events) {
  // The outbox may have some yet, which are to be sent again.
  std::erase_if(events, [](const auto& each) { return each.use_count() > 1 || each->payload.capacity() > kReused; });
  const MutexLock lock(mutex_);
  if (returned_.empty()) return returned_.swap(events);
  const std::size_t room = kMostReturned - std::min(kMostReturned, returned_.size());
  const auto end = events.begin() + static_cast<std::ptrdiff_t>(std::min(room, events.size()));
  returned_.insert(returned_.end(), std::make_move_iterator(events.begin()), std::make_move_iterator(end));
}

void Outgoing::refused(std::string_view key) {
  const MutexLock lock(feedMutex_);
  const auto known = keys_.find(key);
  // A kept one is only confirmed by the store.
  if (known == keys_.end() || !known->second.name || known->second.isKept) return;
  const MutexLock handOver(mutex_);
  live_.refuse();
}

bool Outgoing::confirmKept(std::uint64_t id) {
  const MutexLock lock(mutex_);
  const bool isOldest = kept_.isOldest(id);
  if (kept_.confirm(id) && kept_.queued() > 0) wake();
  return isOldest;
}

void Outgoing::onValues(const std::function<void(LastValues& values)>& use) {
  const MutexLock lock(mutex_);
  use(values_);
  wake();
}

void Outgoing::giveBackLive() {
  const MutexLock lock(mutex_);
  live_.giveBack();
}

void Outgoing::giveBackStored() {
  const MutexLock lock(mutex_);
  kept_.giveBack();
  values_.giveBack();
}

bool Outgoing::awaitsStore() {
  const MutexLock lock(mutex_);
  return kept_.inFlight() > 0 || values_.inFlight() > 0;
}

std::vector<Dropped> Outgoing::takeDropped() {
  const MutexLock lock(mutex_);
  auto all = live_.takeDropped();
  for (Dropped& dropped : kept_.takeDropped()) all.push_back(std::move(dropped));
  return all;
}

void Outgoing::returnDropped(const std::vector<Dropped>& told) {
  const MutexLock lock(mutex_);
  live_.returnDropped(told);
}

Account Outgoing::account() {
  const MutexLock lock(mutex_);
  Account account = live_.account();
  return account += kept_.account();
}

std::size_t Outgoing::mirrored() {
  const MutexLock lock(mutex_);
  return values_.keys();
}

std::uint64_t Outgoing::turnedAway() {
  const MutexLock lock(mutex_);
  return values_.turnedAway();
}

std::string Outgoing::run() {
  const MutexLock lock(feedMutex_);
  return run_;
}

}  // namespace HX::fleet
