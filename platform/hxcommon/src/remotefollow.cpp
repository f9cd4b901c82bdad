#include "remotefollow.h"

#include <hxcommon/hxbroker.h>
#include <hxerror/mutex.h>
#include <hxjournal/request.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

const char* const kService = "HXJournal";
constexpr std::chrono::milliseconds kTask{1};
constexpr int kTaskLines = 512;
constexpr int kLinesPerClock = 16;
constexpr std::chrono::seconds kRetry{1};

}  // namespace

RemoteFollow::RemoteFollow(const std::shared_ptr<HXBroker>& broker, journal::Filter filter, Listener onChange,
                           journal::FollowOptions options)
    : broker_(broker), filter_(std::move(filter)), onChange_(std::move(onChange)), options_(std::move(options)) {}

RemoteFollow::~RemoteFollow() = default;

void RemoteFollow::begin() {
  isWalking_ = options_.snapshot && !options_.since;
  try {
    listen();
    open();
  } catch (...) {
    end();
    throw;
  }
}

void RemoteFollow::listen() {
  const auto broker = broker_.lock();
  const auto onNotice = [weak = weak_from_this()](bool isThere) {
    return mw::SignalSubscriber([weak, isThere](mw::ServiceId, const std::string& service) {
      if (service != kService) return;
      if (const auto self = weak.lock()) self->onService(isThere);
    });
  };
  const auto registered = broker->session()->serviceRegistered.connect(onNotice(true));
  const auto unregistered = broker->session()->serviceUnregistered.connect(onNotice(false));
  const MutexLock lock(mutex_);
  onRegistered_ = registered;
  onUnregistered_ = unregistered;
}

/// Waits for the service. What it sends arrives from the end of this on.
void RemoteFollow::open() {
  const auto broker = broker_.lock();
  if (!broker) throw std::runtime_error("the broker is gone");
  const Author::Scope inItsName(who_);
  const auto service = requireJournalService(*broker);
  journal::FollowOptions options = options_;
  std::uint64_t opening = 0;
  {
    const MutexLock lock(mutex_);
    opening = ++opening_;
    if (epoch_ != 0) options.since = journal::Position{epoch_, revision_};
  }
  const auto feed = service->call<mw::AnyObject>("open", toValue(filter_, options));
  feed->connect("batch", mw::SignalSubscriber([weak = weak_from_this(), opening](const HXValue& batch) {
                  if (const auto self = weak.lock()) self->onBatch(opening, batch);
                }))
      .value();
  const auto start = feed->call<HXValue>("start");
  const MutexLock lock(mutex_);
  if (opening != opening_) return;  // Lost meanwhile.
  if (epoch_ == 0) {
    revision_ = static_cast<std::uint64_t>(start[1].toInt64());
    epoch_ = static_cast<std::uint64_t>(start[0].toInt64());
  }
  if (!ended_) feed_ = feed;
}

void RemoteFollow::onBatch(std::uint64_t opening, const HXValue& batch) {
  const MutexLock lock(mutex_);
  if (opening != opening_ || ended_) return;
  queue_.push_back({opening, batch});
  post(true);  // Nothing comes after this in the delivery.
}

void RemoteFollow::onService(bool isThere) {
  mw::AnyObject lost;  // Goes after the lock.
  const MutexLock lock(mutex_);
  if (ended_) return;
  if (!isThere) {
    std::swap(lost, feed_);
    ++opening_;
    isLost_ = true;
  } else if (isLost_) {
    mayReopen_ = true;
    post();
  }
}

/// Sees to a task when there is something to do; the one that runs sees to the next.
/// @param here  By the calling thread, once it has delivered what it delivers: nobody else has to be woken.
void RemoteFollow::post(bool here) {
  const bool isRunning = running_ != std::thread::id();
  if (posted_ || isRunning || ended_ || paused_) return;
  if (!isTelling_ && queue_.empty() && !(isLost_ && mayReopen_)) return;
  auto task = [self = shared_from_this()] { self->run(); };
  const auto delay = std::exchange(delay_, delay_.zero());
  posted_ = here && delay <= delay.zero() ? mw::defaultLoop().postAfterServing(std::move(task))
                                          : mw::defaultLoop().post(std::move(task), delay);
}

// --- The chain ------------------------------------------------------------------------------------------------------

void RemoteFollow::run() {
  if (!enter()) return;
  work();
  const auto thrown = std::exchange(thrown_, nullptr);
  leave();
  if (thrown) std::rethrow_exception(thrown);
}

bool RemoteFollow::enter() {
  const MutexLock lock(mutex_);
  posted_ = false;
  if (ended_ || paused_) return false;
  running_ = std::this_thread::get_id();
  return true;
}

void RemoteFollow::leave() {
  {
    const MutexLock lock(mutex_);
    if (!leftByItself_) {
      running_ = {};
      stopped_.notify_all();
      post();
      return;
    }
  }
  dropCallbacks();
  const MutexLock lock(mutex_);
  running_ = {};
  stopped_.notify_all();
}

void RemoteFollow::work() {
  const auto until = std::chrono::steady_clock::now() + kTask;
  try {
    for (int told = 0; told < kTaskLines && !ended_ && !paused_ && !thrown_;) {
      if (!isTelling_ && !next()) return;
      tell();
      if (++told % kLinesPerClock == 0 && std::chrono::steady_clock::now() >= until) break;
    }
  } catch (const std::exception& error) {
    loseTrack(error.what());
  }
}

/// Reads the next batch, or opens anew when there is none left of what was lost.
/// @return False when there is nothing to do.
bool RemoteFollow::next() {
  Arrived arrived{};
  {
    const MutexLock lock(mutex_);
    if (queue_.empty()) {
      if (!isLost_ || !std::exchange(mayReopen_, false)) return false;
    } else {
      arrived = std::move(queue_.front());
      queue_.pop_front();
    }
  }
  if (arrived.opening == 0) {
    reopen();
    return false;
  }
  if (std::exchange(read_, arrived.opening) != arrived.opening) reader_ = {};
  batch_ = reader_.read(arrived.batch);
  line_ = 0;
  saidGap_ = false;
  return isTelling_ = true;
}

/// One thing of the batch: the gap, a line, or what ends it.
void RemoteFollow::tell() {
  if (batch_.gap && !std::exchange(saidGap_, true)) {
    isWalking_ = true;
    callBack(options_.onGap, *batch_.gap);
  } else if (line_ < batch_.lines.size()) {
    const auto& line = batch_.lines[line_++];
    if (line.isUnchanged) {
      callBack(options_.onUnchanged, line.change.key, line.change.at);
      return;
    }
    callBack(onChange_, line.change);
    if (!isWalking_ && options_.rate <= 0 && !line.change.isState) moveTo(line.change.at);
  } else if (batch_.complete) {
    isWalking_ = false;
    // What a rate keeps back may lie before it.
    if (options_.rate <= 0) moveTo(*batch_.complete);
    callBack(options_.onComplete, *std::exchange(batch_.complete, std::nullopt));
  } else {
    finish();
  }
}

template <class Function, class... Args>
void RemoteFollow::callBack(const Function& function, const Args&... args) noexcept {
  try {
    if (function) function(args...);
  } catch (...) {
    thrown_ = std::current_exception();
  }
}

void RemoteFollow::finish() {
  moveTo(batch_.position);
  isTelling_ = false;
  mw::AnyObject feed;
  {
    const MutexLock lock(mutex_);
    if (read_ == opening_) feed = feed_;
  }
  if (feed && batch_.acknowledge) {
    try {
      feed->post("took", static_cast<std::int64_t>(batch_.number));
    } catch (const std::exception&) {
      // Lost, which is told by the session.
    }
  }
  if (batch_.pause) callBack(options_.onPause);
}

void RemoteFollow::moveTo(journal::Position position) noexcept {
  // A batch is sent with a place that may lie before its last change.
  const auto isFurther = [&] { return position.epoch != epoch_ || position.revision > revision_; };
  if (!isFurther()) return;
  if (position.epoch == epoch_) return revision_.store(position.revision, std::memory_order_relaxed);
  const MutexLock lock(mutex_);
  if (!isFurther()) return;  // Than where `open` has begun meanwhile.
  revision_ = position.revision;
  epoch_ = position.epoch;
}

void RemoteFollow::reopen() {
  open();
  const MutexLock lock(mutex_);
  isLost_ = !feed_;
}

/// What comes cannot be understood, or the service does not open: begins anew a while later.
void RemoteFollow::loseTrack(const std::string& why) {
  mw::log::warning("hxcommon.module", "follow", fmt::format("following the memory's changes is tried again: {}", why));
  isTelling_ = false;
  mw::AnyObject lost;  // Goes after the lock.
  const MutexLock lock(mutex_);
  std::swap(lost, feed_);
  queue_.clear();
  ++opening_;
  isLost_ = mayReopen_ = true;
  delay_ = kRetry;
}

// --- The handle -----------------------------------------------------------------------------------------------------

void RemoteFollow::end() noexcept {
  bool isOwn = false;
  mw::AnyObject feed;
  mw::SignalLink registered = mw::kInvalidSignalLink;
  mw::SignalLink unregistered = mw::kInvalidSignalLink;
  {
    MutexLock lock(mutex_);
    isOwn = running_ == std::this_thread::get_id();
    const bool isFirst = !ended_.exchange(true);
    if (isFirst && isOwn) leftByItself_ = true;
    if (!isOwn) stopped_.wait(lock.native(), [this]() HX_REQUIRES(mutex_) { return running_ == std::thread::id(); });
    if (!isFirst) return;
    std::swap(feed, feed_);
    queue_.clear();
    registered = std::exchange(onRegistered_, mw::kInvalidSignalLink);
    unregistered = std::exchange(onUnregistered_, mw::kInvalidSignalLink);
  }
  if (const auto broker = broker_.lock()) {
    broker->session()->serviceRegistered.disconnect(registered);
    broker->session()->serviceUnregistered.disconnect(unregistered);
  }
  try {
    if (feed) feed->post("stop");
  } catch (const std::exception&) {
    // The connection is lost, and the feed with it.
  }
  feed.reset();
  if (!isOwn) dropCallbacks();
}

/// What they hold may hold the follower.
void RemoteFollow::dropCallbacks() noexcept {
  onChange_ = nullptr;
  options_ = {};
}

journal::Position RemoteFollow::position() const noexcept {
  const MutexLock lock(mutex_);
  return {epoch_, revision_};
}

void RemoteFollow::pause() noexcept {
  const MutexLock lock(mutex_);
  paused_ = true;
}

void RemoteFollow::resume() {
  const MutexLock lock(mutex_);
  paused_ = false;
  post();
}

}  // namespace HX
