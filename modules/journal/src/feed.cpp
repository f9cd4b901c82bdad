#include "feed.h"

#include <libmw/log.h>
#include <libmw/objecttypebuilder.h>

#include <new>
#include <stdexcept>
#include <string>
#include <utility>

namespace HX {

Feed::Feed(std::shared_ptr<journal::Journal> journal, journal::Request request)
    : journal_(std::move(journal)), request_(std::move(request)) {}

Feed::~Feed() { follow_.end(); }

void Feed::describe() {
  mw::ObjectTypeBuilder<Feed> builder("HXJournalFeed");
  builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  builder.advertiseMethod("start", &Feed::start, "Begins to follow. Connect to batch before.");
  builder.advertiseMethod("took", &Feed::took, "Says that all up to the batch with this ack has been dealt with.");
  builder.advertiseMethod("stop", &Feed::stop, "Ends it.");
  builder.advertiseSignal("batch", &Feed::batch);
  builder.registerType();
}

/// Whoever is told may let go of the feed, which then stays until it has been told.
template <class... Args>
auto Feed::callback(void (Feed::*tell)(Args...)) {
  return [weak = weak_from_this(), tell](Args... args) {
    const auto self = weak.lock();
    if (!self) return;
    self->waitUntilBegun();
    try {
      (self.get()->*tell)(args...);
    } catch (const std::bad_alloc&) {
      self->startOver();
    }
  };
}

/// Nobody is told of most changes at once: the feed, whose end waits for this, is held for those alone that fill a
/// batch.
void Feed::onChange(const journal::Change& change) {
  waitUntilBegun();
  try {
    writer_.change(change);
    if (!isBatchFull()) return;
  } catch (const std::bad_alloc&) {
    if (const auto self = weak_from_this().lock()) startOver();
    return;
  }
  callback (&Feed::send)();
}

/// The place where it began is asked for: it must not move until then.
void Feed::waitUntilBegun() {
  if (!begun_) const std::lock_guard wait(mutex_);
}

void Feed::follow(std::optional<journal::Position> since) {
  journal::FollowOptions options = request_.options;
  if (since) options.since = since;
  options.onGap = callback(&Feed::onGap);
  options.onUnchanged = callback(&Feed::onUnchanged);
  options.onComplete = callback(&Feed::onComplete);
  options.onPause = callback(&Feed::onPause);
  const auto onEach = [this](const journal::Change& change) { onChange(change); };
  follow_ = journal_->follow(request_.filter, onEach, std::move(options));
}

/// What was not sent is told anew, by another follower. From a callback of this one, which has nothing more to do.
void Feed::startOver() noexcept {
  try {
    const std::lock_guard lock(mutex_);
    if (!follow_) return;
    writer_.startOver();
    follow(sent_);
  } catch (const std::exception& error) {
    mw::log::error("HXJournal", "startOver", std::string("a feed has ended: ") + error.what());
  }
}

HXValue Feed::start() {
  const std::lock_guard lock(mutex_);
  if (std::exchange(started_, true)) throw std::runtime_error("this feed has been started before");
  follow(std::nullopt);
  sent_ = follow_.position();
  begun_ = true;
  return HXValue::list({static_cast<std::int64_t>(sent_.epoch), static_cast<std::int64_t>(sent_.revision)});
}

void Feed::stop() {
  journal::Follow ended;  // Ends after the lock, which its callbacks take.
  const std::lock_guard lock(mutex_);
  started_ = true;
  std::swap(ended, follow_);
}

void Feed::took(std::int64_t number) {
  const std::lock_guard lock(mutex_);
  while (number > 0 && !unanswered_.empty() && unanswered_.front().number <= static_cast<std::uint64_t>(number)) {
    lines_ -= unanswered_.front().lines;
    bytes_ -= unanswered_.front().bytes;
    unanswered_.pop_front();
  }
  if (!full_ || isHalfFull()) return;
  follow_.resume();
  full_ = false;
}

void Feed::onGap(const journal::Gap& gap) {
  if (!writer_.isEmpty()) send();
  writer_.gap(gap);
}

void Feed::onUnchanged(std::string_view key, journal::Position at) {
  writer_.unchanged(key, at);
  if (isBatchFull()) send();
}

void Feed::onComplete(journal::Position at) {
  writer_.complete(at);
  send();
}

/// That there was nothing wanted among many changes is told too, for the sake of the place to go on from, but not
/// often.
void Feed::onPause() {
  const bool isNews = !writer_.isEmpty() || !saidPause_;
  if (!isNews && std::chrono::steady_clock::now() < sentAt_ + kPlaceAgain) return;
  writer_.pause();
  send();
  saidPause_ = true;
}

/// Without memory nothing has been sent, and nothing counts as under way that was not.
void Feed::send() {
  HXValue value;
  journal::Position position;
  {
    const std::lock_guard lock(mutex_);
    if (!follow_) return;
    position = follow_.position();
    value = take(position);
    if (isFull()) {
      full_ = true;
      follow_.pause();
    }
  }
  try {
    batch(value);
  } catch (const std::bad_alloc&) {
    writer_.takeBack();
    throw;
  }
  sentAt_ = std::chrono::steady_clock::now();
  saidPause_ = false;
  const std::lock_guard lock(mutex_);
  sent_ = position;
}

/// The batch, and what it takes counted as under way. With `mutex_` held.
HXValue Feed::take(journal::Position position) {
  const Asked since{writer_.number(), linesSinceAsked_ + writer_.lines(), bytesSinceAsked_ + writer_.bytes()};
  const bool isAsked = since.lines >= kAskLines || since.bytes >= kAskBytes;
  if (isAsked) unanswered_.push_back(since);
  lines_ += writer_.lines();
  bytes_ += writer_.bytes();
  try {
    HXValue value = writer_.take(position, isAsked);
    linesSinceAsked_ = isAsked ? 0 : since.lines;
    bytesSinceAsked_ = isAsked ? 0 : since.bytes;
    return value;
  } catch (...) {
    if (isAsked) unanswered_.pop_back();
    lines_ -= writer_.lines();
    bytes_ -= writer_.bytes();
    throw;
  }
}

}  // namespace HX
