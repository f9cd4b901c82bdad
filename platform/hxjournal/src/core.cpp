#include "core.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <limits>
#include <new>
#include <random>
#include <stdexcept>
#include <utility>

namespace HX::journal {
namespace {

constexpr std::chrono::milliseconds kSharedLook{20};
constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();
constexpr int kLooksUntilIdle = 50;  // A second without a change: then the next one rings, once.

/// Of 53 bits, so that it is exact in the numbers of every client's language.
std::uint64_t randomEpoch() {
  std::random_device random;
  return std::uniform_int_distribution<std::uint64_t>(1, (std::uint64_t{1} << 53U) - 1)(random);
}

}  // namespace

Core::Core(Source& itsSource, std::shared_ptr<Executor> itsExecutor, const Journal::Options& options)
    : ring(options),
      source(itsSource),
      executor(std::move(itsExecutor)),
      epoch(randomEpoch()),
      lingerTime_(options.linger) {}

std::shared_ptr<Follower> Core::join(Filter filter, Follower::Listener onChange, FollowOptions options) {
  auto follower =
      std::make_shared<Follower>(shared_from_this(), std::move(filter), std::move(onChange), std::move(options));
  Followers one{follower};
  Ring::Chunks spare(1);
  {
    const MutexLock lock(mutex_);
    if (closed_) throw std::runtime_error("the journal is closed");
    if (!recording_) beginRecording();
    ring.addSpare(spare);
    followers_.splice(followers_.end(), one);
    if (!looking_) lookLater();
  }
  try {
    follower->begin();
    executor->post([follower] { follower->run(); }, {});
  } catch (...) {
    follower->end();
    throw;
  }
  return follower;
}

void Core::leave(const Follower& follower) noexcept {
  Ring::Chunks spare;
  Followers one;  // Both go after the lock.
  const MutexLock lock(mutex_);
  const auto found = std::ranges::find(followers_, &follower, &std::shared_ptr<Follower>::get);
  if (found == followers_.end()) return;
  one.splice(one.end(), followers_, found);
  spare = ring.takeSpare();
  somebodyLeft_.notify_all();
  if (followers_.empty() && !closed_ && !keep_) linger();
}

void Core::close() noexcept {
  MutexLock lock(mutex_);
  closed_ = true;
  while (!followers_.empty()) {
    const auto follower = followers_.front();
    lock.unlock();
    follower->end();
    lock.lock();
    // One that is leaving on another thread is gone in a moment.
    somebodyLeft_.wait(lock.native(), [&]() HX_REQUIRES(mutex_) {
      return std::ranges::find(followers_, follower) == followers_.end();
    });
  }
  endRecording();
}

void Core::keep(bool on) {
  const MutexLock lock(mutex_);
  if (closed_) throw std::runtime_error("the journal is closed");
  if (on && !recording_) beginRecording();
  if (keep_ && !on && followers_.empty()) linger();
  keep_ = on;
}

bool Core::isRecording() const {
  const MutexLock lock(mutex_);
  return recording_;
}

Position Core::latest() const noexcept {
  const std::uint64_t head = ring.head();
  return {epoch, head == 0 ? 0 : head - 1};
}

std::vector<FollowerInfo> Core::followers() const {
  const MutexLock lock(mutex_);
  std::vector<FollowerInfo> all;
  for (const auto& follower : followers_) all.push_back(follower->info());
  return all;
}

void Core::scan(const Filter& filter, const std::function<void(const Change&)>& use) {
  std::shared_ptr<const std::string> author;
  std::uint32_t known = 0;
  const auto tell = [&](const Entry& entry, std::uint64_t revision) {
    if (entry.author != std::exchange(known, entry.author)) author = Author::textOf(entry.author);
    Change change;
    change.key = entry.name();
    change.value = entry.value;
    change.time = entry.time;
    change.at = {epoch, revision};
    change.nth = entry.nth;
    change.what = entry.what;
    change.kind = entry.kind;
    change.changedKind = entry.changedKind;
    change.byAddress = entry.byAddress;
    if (author) change.author = *author;
    use(change);
  };
  Ring::Chunks spare(1);
  const MutexLock lock(mutex_);
  if (!recording_) return;
  ring.addSpare(spare);
  struct TakeBack {
    ~TakeBack() { spare = ring.takeSpare(); }
    Ring& ring;
    Ring::Chunks& spare;
  } const takeBack{ring, spare};
  const Ring::Extent extent = ring.extent();
  for (std::uint64_t cursor = extent.oldest; cursor < extent.head;) {
    const Ring::Pin pin(ring, cursor, extent.head, kNoLimit);
    if (pin.isLapped()) {
      cursor = ring.extent().oldest;
      continue;
    }
    for (const Entry& entry : pin.entries()) {
      if (filter.wantsChange(entry.what, entry.kind, entry.changedKind) && filter.wantsKey(entry.name())) {
        tell(entry, cursor);
      }
      ++cursor;
    }
  }
}

Retained Core::retainedFrom(TimePoint time) {
  Ring::Chunks spare(1);  // Whoever pins a chunk brings one.
  const MutexLock lock(mutex_);
  if (!recording_) return {latest(), latest(), std::nullopt, false};
  ring.addSpare(spare);
  Retained found{{}, {}, std::nullopt, true};
  for (std::uint64_t cursor = ring.extent().oldest;;) {
    const Ring::Pin pin(ring, cursor, kNoLimit, kNoLimit);
    if (pin.isLapped()) {
      cursor = ring.extent().oldest;
      continue;
    }
    const auto entry = std::ranges::find_if(pin.entries(), [&](const Entry& one) { return one.time >= time; });
    cursor += static_cast<std::uint64_t>(entry - pin.entries().begin());
    if (entry == pin.entries().end() && !pin.entries().empty()) continue;
    found.from = {epoch, cursor - 1};
    if (!pin.entries().empty()) found.since = entry->time;
    break;
  }
  spare = ring.takeSpare();
  found.latest = latest();
  return found;
}

void Core::beginRecording() {
  auto store = ring.makeStore();
  ring.open(store);
  source.setRecording(true);
  recording_ = true;
}

void Core::endRecording() noexcept {
  if (!recording_) return;
  recording_ = false;
  source.setRecording(false);
  Ring::Store store;
  std::list<Grave> graves;
  ring.close(store, graves);
}

bool Core::later(void (Core::*step)(), std::chrono::nanoseconds delay) {
  return executor->post(
      [weak = weak_from_this(), step] {
        if (const auto core = weak.lock()) (core.get()->*step)();
      },
      delay);
}

void Core::linger() noexcept {
  lingerUntil_ = executor->now() + lingerTime_;
  if (!lingering_) lingerFor(lingerTime_);
}

/// Where no task can be had for it, recording ends at once: a ring that nobody reads must not cost writers for ever.
void Core::lingerFor(std::chrono::nanoseconds time) noexcept {
  try {
    lingering_ = later(&Core::endLinger, time);
  } catch (const std::bad_alloc&) {
    lingering_ = false;
  }
  if (!lingering_) endRecording();
}

void Core::endLinger() {
  const MutexLock lock(mutex_);
  lingering_ = false;
  if (closed_ || keep_ || !followers_.empty()) return;
  // Later, when somebody came and went meanwhile.
  const auto left = lingerUntil_ - executor->now();
  if (left > left.zero()) return lingerFor(left);
  endRecording();
}

/// What is left to the calling thread waits for what the caller still does: the next change rings all the same.
void Core::ringBell(bool isLast) noexcept {
  try {
    const bool isLeft = isLast && executor->leave([weak = weak_from_this()] {
      if (const auto core = weak.lock()) core->bell();
    });
    if (isLeft) {
      ring.askForBell();
    } else {
      later(&Core::bell, {});
    }
  } catch (const std::bad_alloc&) {
    ring.askForBell();  // With the next change, then.
  }
}

void Core::bell() {
  ring.forgetBell();  // Who falls asleep from here on asks for it anew.
  {
    const MutexLock lock(mutex_);
    if (closed_) return;
    looksWithout_ = 0;
    if (!looking_) lookLater();
  }
  const auto first = nextSleeper();
  if (!first) return;
  while (const auto another = nextSleeper()) runSoon(another);
  first->run();
}

void Core::runSoon(const std::shared_ptr<Follower>& follower) {
  try {
    executor->post([follower] { follower->run(); }, {});
  } catch (const std::bad_alloc&) {
    follower->run();
  }
}

std::shared_ptr<Follower> Core::nextSleeper() {
  const MutexLock lock(mutex_);
  for (const auto& follower : followers_) {
    if (follower->isPrompt() && ring.wake(follower->sleeper)) return follower;
  }
  return nullptr;
}

std::shared_ptr<Follower> Core::nextRelaxed() {
  const MutexLock lock(mutex_);
  for (const auto& follower : followers_) {
    if (!follower->isPrompt() && ring.wakeIfNews(follower->sleeper)) return follower;
  }
  return nullptr;
}

/// For the followers who need no promptness, as long as there are any.
void Core::lookLater() noexcept {
  looking_ = false;
  if (std::ranges::all_of(followers_, [](const auto& follower) { return follower->isPrompt(); })) return;
  try {
    looking_ = later(&Core::look, kSharedLook);
  } catch (const std::bad_alloc&) {
    ring.askForBell();
  }
}

void Core::look() {
  while (const auto follower = nextRelaxed()) runSoon(follower);
  const MutexLock lock(mutex_);
  looking_ = false;
  if (closed_) return;
  const std::uint64_t head = ring.head();
  looksWithout_ = head == lookedAt_ ? looksWithout_ + 1 : 0;
  lookedAt_ = head;
  // A table at rest costs nothing: it is looked at again when the next change rings.
  if (looksWithout_ < kLooksUntilIdle || !ring.askForBell(head)) lookLater();
}

}  // namespace HX::journal
